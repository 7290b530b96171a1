#!/usr/bin/env python3
"""Makes the pictures of docs/consoles.md and docs/harbour.md again: docs/images/*.png.

    scripts/screenshots.py [BUILD [window|viewer|harbour]...]      the build folder, by default "build"

Needs xvfb, xfonts-terminus-dos, xfonts-base, xterm, tmux, inetutils-telnet and xdotool. Each picture is the screen of
a virtual X server: first conshow's own window, then a terminal in which tmux runs plexview."""

import os
import socket
import struct
import subprocess
import sys
import tempfile
import time
import zlib

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "build"))
images = os.path.join(root, "docs", "images")
picture = os.path.join(root, "tools", "harbour.ans")


class Screen:
    """A virtual X server, whose screen is a file in the X window dump format."""

    def __init__(self, home, width, height):
        fonts = "/usr/share/fonts/X11/misc," + root + "/fonts,built-ins"
        self.file = os.path.join(home, "Xvfb_screen0")
        self.server = subprocess.Popen(
            ["Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-noreset", "-nocursor", "-fp", fonts,
             "-screen", "0", "%dx%dx24" % (width, height), "-fbdir", home],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        number = self.server.stdout.readline().decode().strip()
        self.env = dict(os.environ, DISPLAY=":" + number, BBSCONFIG="/dev/null", TERM="xterm",
                        LC_ALL="C.UTF-8", SHELL="/bin/sh")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.terminate()
        self.server.wait()

    def run(self, args, **env):
        return subprocess.Popen(args, cwd=os.path.dirname(self.file), env=dict(self.env, **env),
                                stdout=subprocess.DEVNULL)

    def terminal(self, name, command):
        """A terminal in which tmux, at the socket `name`, runs the command."""
        font = "-misc-fixed-medium-r-normal--14-130-75-75-c-70-iso10646-1"
        return self.run(["xterm", "-geometry", "90x28+0+0", "-fn", font, "-fb", font, "-b", "0", "-bc",
                         "+sb", "-xrm", "*background: black", "-xrm", "*foreground: grey", "-xrm",
                         "*boldMode: false", "-e", "tmux", "-u", "-S", name, "-f", "/dev/null",
                         "new-session", command, ";", "set", "status", "off"])

    def keys(self, *names):
        subprocess.run(["xdotool", "key", "--delay", "100"] + list(names), env=self.env, check=True)

    def pixels(self):
        """Width, height and the rows of red, green and blue bytes."""
        with open(self.file, "rb") as file:
            dump = file.read()
        header = struct.unpack(">25I", dump[:100])
        width, height, line = header[4], header[5], header[12]
        start = header[0] + header[19] * 12
        rows = []
        for y in range(height):
            bgr = dump[start + y * line:start + y * line + width * 4]
            rgb = bytearray(width * 3)
            rgb[0::3], rgb[1::3], rgb[2::3] = bgr[2::4], bgr[1::4], bgr[0::4]
            rows.append(bytes(rgb))
        return width, height, rows

    def shoot(self, name, rest=10):
        """Waits until the screen shows something and stands still for a while, and writes it."""
        last, still = None, 0
        for _ in range(200):
            now = self.pixels()
            still = still + 1 if now == last and any(map(any, now[2])) else 0
            last = now
            if still == rest:
                break
            time.sleep(0.1)
        else:
            sys.exit("the screen for %s does not come to rest" % name)
        width, height, rows = last

        def chunk(kind, data):
            return (struct.pack(">I", len(data)) + kind + data +
                    struct.pack(">I", zlib.crc32(kind + data)))

        with open(os.path.join(images, name), "wb") as png:
            png.write(b"\x89PNG\r\n\x1a\n" +
                      chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)) +
                      chunk(b"IDAT", zlib.compress(b"".join(b"\0" + r for r in rows), 9)) +
                      chunk(b"IEND", b""))
        print("docs/images/" + name)


def window():
    with tempfile.TemporaryDirectory() as home, Screen(home, 648, 412) as screen:
        shown = screen.run([build + "/conshow", picture], BBSDISP="xwindow")
        screen.shoot("window.png")
        screen.keys("shift+F1")
        screen.shoot("window-key.png")
        screen.keys("Escape")
        shown.wait()


def viewer():
    with tempfile.TemporaryDirectory() as home, Screen(home, 634, 396) as screen:
        shown = screen.run([build + "/conshow", "-n", "plexhost", picture])
        while not os.path.exists(os.path.join(home, "plexhost.console")):
            time.sleep(0.05)
        terminal = screen.terminal("tmux", build + "/plexview")
        screen.shoot("viewer.png")
        screen.keys("Escape")
        shown.wait()
        terminal.wait()


def harbour():
    """A caller at the menu, and the operator with a few lines at work."""
    with tempfile.TemporaryDirectory() as home, Screen(home, 634, 396) as screen:
        board = subprocess.Popen([build + "/harbour", "--demo"], env=screen.env, cwd=home,
                                 stdout=subprocess.PIPE, text=True)
        port = board.stdout.readline().split()[-1]
        place = board.stdout.readline().split()[-1]
        callers = []
        for keys in ("11E", "12T", "11", "31P"):
            callers.append(socket.create_connection(("127.0.0.1", int(port))))
            callers[-1].sendall(keys.encode())
        call = screen.terminal("caller", "telnet 127.0.0.1 " + port)
        time.sleep(1)
        screen.keys("1", "1")
        screen.shoot("harbour-caller.png")
        operator = screen.terminal("operator", build + "/plexview " + place)
        screen.shoot("harbour-operator.png", rest=4)  # it has a clock
        board.terminate()
        board.wait()
        call.wait()
        operator.wait()


os.makedirs(images, exist_ok=True)
makers = {"window": window, "viewer": viewer, "harbour": harbour}
for maker in sys.argv[2:] or makers:
    makers[maker]()
