#!/usr/bin/env python3
"""Makes the pictures of docs/consoles.md again: docs/images/*.png.

    scripts/screenshots.py [BUILD]      the build folder, by default "build"

Needs xvfb, xfonts-terminus-dos, xfonts-base, xterm, tmux and xdotool. Each picture is the screen of
a virtual X server: first conshow's own window, then a terminal in which tmux runs plexview."""

import os
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
            ["Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-noreset", "-fp", fonts,
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

    def shoot(self, name):
        """Waits until the screen shows something and stands still, and writes it."""
        last, still = None, 0
        for _ in range(200):
            now = self.pixels()
            still = still + 1 if now == last and any(map(any, now[2])) else 0
            last = now
            if still == 10:
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
        font = "-misc-fixed-medium-r-normal--14-130-75-75-c-70-iso10646-1"
        terminal = screen.run(["xterm", "-geometry", "90x28+0+0", "-fn", font, "-fb", font, "-b", "0",
                               "-bc", "+sb", "-xrm", "*background: black", "-xrm",
                               "*foreground: grey", "-xrm", "*boldMode: false", "-e", "tmux", "-u",
                               "-S", "tmux", "-f", "/dev/null", "new-session",
                               build + "/plexview"])
        screen.shoot("viewer.png")
        screen.keys("Escape")
        shown.wait()
        terminal.wait()


os.makedirs(images, exist_ok=True)
window()
viewer()
