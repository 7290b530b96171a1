#!/usr/bin/env python3
"""harbour, over real sockets:  harbour.py BUILD [unittest's arguments]

Most callers here are sockets that speak as much telnet as a test needs. One whole visit is made with
a telnet client of Debian's, and the operator sits at plexview, both on terminals that tmux keeps.
"""
import os
import re
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

build = os.path.abspath(sys.argv.pop(1))
PATIENCE = 20
IAC, DONT, DO, WONT, WILL, SB, IP, SE = 255, 254, 253, 252, 251, 250, 244, 240
BINARY, ECHO, SGA, TTYPE, NAWS = 0, 1, 3, 24, 31
LANGUAGES = "NLingo=2\nLNG=English/ANSI\nLNGYES=yes\nLNGNO=no\nLNG=English/ASCII\n"


def eventually(what, seconds=PATIENCE):
    """Polls until what() is true: its value."""
    end = time.monotonic() + seconds
    while not (value := what()) and time.monotonic() < end:
        select.select([], [], [], 0.01)
    return value


def processes(text):
    """The processes whose command line has the text: {pid: its state and times}."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as line, open(f"/proc/{pid}/stat", "rb") as stat:
                if text.encode() in line.read().replace(b"\0", b" "):
                    found[int(pid)] = stat.read().decode(errors="replace").rpartition(")")[2].split()
        except OSError:
            pass
    return {pid: stat for pid, stat in found.items() if stat and stat[0] != "Z"}


class Board:
    """A home, and the harbour that serves it."""

    def __init__(self, menu="", settings="", env=None, start=True):
        self.home = tempfile.mkdtemp(prefix="harbour")
        self.mark = os.path.basename(self.home)  # in the command lines of its programs
        self.write("pxhost.cfg", LANGUAGES)
        self.write("harbour.menu", menu.replace("%H", self.home) or "T|0|Truth|/bin/true\n")
        self.write("cfg", f"HOME={self.home}\nLISTEN=127.0.0.1:0\n{settings}\n")
        self.env = {k: v for k, v in os.environ.items() if not k.startswith(("BBS", "MCV"))}
        self.env.update({"BBSCONFIG": self.home + "/cfg", "BBSLOG": "file", **(env or {})})
        self.process = self.port = None
        if start:
            self.start()
            self.port = eventually(lambda: re.search(r"listening at .*:(\d+)\n", self.log()))
            self.port = int(self.port[1])

    def write(self, name, text):
        with open(os.path.join(self.home, name), "w") as f:
            f.write(text)

    def log(self):
        try:
            with open(self.home + "/harbour.log", errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def start(self):
        self.process = subprocess.Popen([build + "/harbour"], env=self.env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def outcome(self):
        out, _ = self.process.communicate(timeout=60)
        return self.process.returncode, out

    def stat(self, field):
        with open(f"/proc/{self.process.pid}/stat") as f:
            return int(f.read().rpartition(")")[2].split()[field - 3])

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def daemon(self):
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children") as f:
            return int(f.read().split()[0])

    def close(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.process:
            self.process.stdout.close()
        eventually(lambda: not processes(self.mark))
        shutil.rmtree(self.home, ignore_errors=True)


class Call:
    """A caller, of plain text unless he chooses. What he is sent is in `seen` (data) and `offers`."""

    def __init__(self, board, answers=None, size=None, choose="2"):
        self.socket = socket.create_connection(("127.0.0.1", board.port), PATIENCE)
        self.raw, self.seen, self.offers, self.closed = b"", b"", [], False
        for option in answers or []:
            self.socket.sendall(bytes([IAC, DO, option, IAC, WILL, option]))
        if size:
            self.size(*size)
        self.send(choose)

    def size(self, columns, rows):
        self.socket.sendall(bytes([IAC, WILL, NAWS, IAC, SB, NAWS]) + struct.pack(">HH", columns, rows) +
                            bytes([IAC, SE]))

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def read(self, seconds):
        if not select.select([self.socket], [], [], seconds)[0]:
            return False
        try:
            data = self.socket.recv(65536)
        except ConnectionResetError:
            data = b""
        self.closed = self.closed or not data
        self.raw += data
        self.decode()
        return bool(data)

    def decode(self):
        while self.raw:
            at = self.raw.find(IAC)
            self.seen += self.raw if at < 0 else self.raw[:at]
            self.raw = b"" if at < 0 else self.raw[at:]
            if len(self.raw) < 2 or (WILL <= self.raw[1] <= DONT and len(self.raw) < 3):
                return
            if self.raw[1] == IAC:
                self.seen, self.raw = self.seen + b"\xff", self.raw[2:]
            elif self.raw[1] == SB:
                end = self.raw.find(bytes([IAC, SE]))
                if end < 0:
                    return
                self.offers, self.raw = self.offers + [self.raw[1:end]], self.raw[end + 2:]
            else:
                n = 3 if WILL <= self.raw[1] <= DONT else 2
                self.offers, self.raw = self.offers + [self.raw[1:n]], self.raw[n:]

    def expect(self, text):
        """Reads up to the text and takes that off: what came before it."""
        text = text if isinstance(text, bytes) else text.encode()
        end = time.monotonic() + PATIENCE
        while text not in self.seen:
            if time.monotonic() > end or self.closed or not self.read(end - time.monotonic()):
                raise AssertionError(f"no {text!r} in {self.seen[-2000:]!r}, closed: {self.closed}")
        before, _, self.seen = self.seen.partition(text)
        return before

    def run(self, key, shows):
        self.expect("Your choice: ")
        self.send(key)
        self.expect(shows)

    def ended(self):
        """Reads to the end: whether that came."""
        return eventually(lambda: self.closed or (self.read(0.1), self.closed)[1])

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Terminals:
    """Terminals that tmux keeps, by name."""

    def __init__(self, home):
        self.home = home

    def tmux(self, *args):
        return subprocess.run(["tmux", "-u", "-S", self.home + "/tmux", "-f", "/dev/null", *args],
                              capture_output=True, text=True, check=False,
                              env={**os.environ, "LC_ALL": "C.UTF-8", "SHELL": "/bin/sh"}).stdout

    def open(self, name, command, columns=80, rows=26):
        self.tmux("new-session", "-d", "-s", name, "-x", str(columns), "-y", str(rows),
                  command + "; echo status=$?; exec cat")

    def keys(self, name, *keys):
        self.tmux("send-keys", "-t", name, *keys)

    def shows(self, name, pattern):
        last = ""

        def look():
            nonlocal last
            last = self.tmux("capture-pane", "-p", "-t", name)
            return re.search(pattern, last)
        if not eventually(look):
            raise AssertionError(f"no {pattern!r} in\n{last}")
        return last


class Harbour(unittest.TestCase):
    def board(self, *args, **kwargs):
        board = Board(*args, **kwargs)
        self.addCleanup(board.close)
        return board

    def call(self, board, *args, **kwargs):
        call = Call(board, *args, **kwargs)
        self.addCleanup(call.socket.close)
        return call

    def terminals(self, board):
        terminals = Terminals(board.home)
        self.addCleanup(terminals.tmux, "kill-server")
        return terminals

    # A visit with somebody else's client, in the home that --demo makes.
    def test_visit(self):
        board = self.board(start=False)
        out = open(board.home + "/out", "w+")
        self.addCleanup(out.close)
        env = {**board.env, "BBSDISP": "nullcon", "TMPDIR": board.home}
        board.process = subprocess.Popen([build + "/harbour", "--demo"], env=env, stdout=out,
                                         stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT)
        board.process.stdout = out
        told = eventually(lambda: (out.seek(0), re.search(r"telnet ([\d.]+ \d+)", out.read()))[1])
        t = self.terminals(board)
        t.open("caller", f"telnet {told[1]}", 91, 33)
        t.shows("caller", "3  Deutsch, farbig")
        t.keys("caller", "3")
        t.shows("caller", "1  ┌─┬─┐ ╔═╦═╗ ░▒▓█ äöü ß")
        t.keys("caller", "1")
        t.shows("caller", r"│  harbour +Leitung 1  +│(?s:.*)Ihre Wahl:")
        t.keys("caller", "s")
        t.shows("caller", "rows 33; columns 91;")
        t.shows("caller", "My terminal's settings ist zu Ende")
        t.keys("caller", "e")
        t.shows("caller", "Ihre Wahl: An echo")
        t.keys("caller", "grüße", "Enter")
        t.shows("caller", "grüße\ngrüße\n")
        t.keys("caller", "C-c")
        t.shows("caller", r"durch Signal 2 \(Interrupt\)")
        t.keys("caller", "g")
        t.shows("caller", "Auf Wiedersehen. Sie waren 0:00 hier.")
        t.shows("caller", "Connection closed by foreign host.\nstatus=0")
        board.process.send_signal(signal.SIGINT)
        self.assertEqual(board.process.wait(60), 0)
        self.assertEqual([f for f in os.listdir(board.home) if f.startswith("plexrun")], [])

    def test_operator(self):
        board = self.board("C|0|Cat|/bin/cat %H/none -\n", env={"BBSDISP": "viewer"})
        t = self.terminals(board)
        t.open("operator", f"{build}/plexview {board.home}")
        t.shows("operator", r"harbour +127.0.0.1:\d+ +0 of 32 lines +\d\d-[A-Z]{3}-\d\d \d\d:\d\d:\d\d")
        first, call = self.call(board), self.call(board, choose="11")
        call.run("c", "none: No such file")
        t.shows("operator", r"\n    2  running +127\.0\.0\.1:\d+ +Cat +0:\d\d:\d\d +\d+ +\d+\n")
        t.keys("operator", "Down", "v")
        t.shows("operator", r"Cat(?s:.*)No such file(?s:.*)V back")
        call.send("\x1b[5;10Hl\xc3\xa4uft\x1b[1\n".encode("latin-1"))
        t.shows("operator", r"\^\[\[5;10Hläuft")
        t.keys("operator", "m")
        t.shows("operator", "To line 2:")
        t.keys("operator", "Tea, ~5 o'clock?", "BSpace", "!", "Enter")
        call.expect("The operator: Tea, ~5 o'clock! ")
        t.keys("operator", "v", "k", "n", "k")
        t.shows("operator", "Line 2: end Cat")
        t.keys("operator", "y")
        call.expect("The operator has ended your program.")
        call.expect("Your choice: ")
        t.shows("operator", r"\n    2  menu ")
        t.keys("operator", "d", "y")
        call.expect("The operator ends this call.")
        self.assertTrue(call.ended())
        t.shows("operator", r"\n    2  free")
        t.keys("operator", "q", "Escape", "q")
        t.shows("operator", "Say goodbye to all callers")
        t.keys("operator", "y")
        first.expect("The board closes now. Goodbye.")
        self.assertEqual(board.outcome(), (0, ""))
        t.shows("operator", "status=0")

    # Every byte, both ways; and for those who refuse it, a network terminal's line ends.
    def test_bytes(self):
        board = self.board("R|0|Raw|/bin/sh -c \"stty raw -echo; echo ready; exec cat\"\n")
        call = self.call(board, [BINARY])
        call.run("r", "ready\n")
        every = bytes(range(256)) * 64
        call.send(every.replace(b"\xff", b"\xff\xff"))
        call.expect(every)
        plain = self.call(board)
        plain.run("R", "ready\n")
        for sent, echoed in ((b"a\r\0b", b"a\r\0b"), (b"c\r\nd", b"c\r\0d"), (b"e\r", b"e\r"),
                             (b"\0f", b"\0f"), (b"\r", b"\r"), (b"\ng\n", b"\0g\n"), (b"\xff\xff", b"\xff")):
            plain.send(sent)
            self.assertEqual(plain.expect(echoed), b"", sent)
        self.assertEqual({bytes([WILL, ECHO]), bytes([WILL, SGA]), bytes([DO, NAWS]), bytes([DO, TTYPE])} -
                         set(plain.offers), set())

    def test_terminal(self):
        script = "trap 'stty size' WINCH; trap 'echo quit' QUIT; stty size; while :; do sleep 0.01; done"
        board = self.board(f"S|0|Size|/bin/sh -c \"{script}\"\nN|0|Name|/bin/echo <%t>\n")
        call = self.call(board, size=(132, 43))
        call.run("s", "43 132\r\n")
        call.size(40, 10)
        call.expect("10 40\r\n")
        call.send(bytes([IAC, 243]))  # break
        call.expect("quit\r\n")
        call.send(bytes([IAC, IP]))
        call.expect("ended by signal 2 (Interrupt)")
        for name, shown in (("XTerm-256color", "xterm-256color"), ("a b", "ansi"), ('"; x', "ansi")):
            call.send(bytes([IAC, WILL, TTYPE, IAC, SB, TTYPE, 0]) + name.encode() + bytes([IAC, SE]))
            call.run("n", f"<{shown}>")

    def test_who_does_not_read_stops_himself(self):
        board = self.board("Y|0|Yes|/usr/bin/yes %H\nS|0|Sleep|/bin/sh -c \"sleep 1000; : %H\"\nC|0|Cat|/bin/cat\n",
                           env={"BBSDISP": "nullcon"})
        call, other, typist = self.call(board), self.call(board), self.call(board)
        call.run("y", board.home)

        def ticks():
            return sum(int(s[11]) + int(s[12]) for s in processes("yes " + board.home).values())
        last = [ticks()]

        def still():  # for a second
            before, last[0] = last[0], (select.select([], [], [], 1), ticks())[1]
            return before == last[0]
        self.assertTrue(eventually(still), "the program was never stopped")
        memory = board.stat(24)
        typist.run("s", "Sleep")
        typist.socket.setblocking(False)
        for _ in range(1000):
            try:
                typist.socket.send(b"x" * 65536)
            except BlockingIOError:
                break
        else:
            self.fail("all was taken from one whose program does not read")
        other.run("c", "Cat")
        for i in range(100):
            other.send(f"{i}\n")
            other.expect(f"{i}\r\n{i}\r\n")
        self.assertLess((board.stat(24) - memory) * resource.getpagesize(), 1 << 20)
        call.expect(board.home)  # and it goes on when he does
        typist.reset()
        call.reset()
        self.assertTrue(eventually(lambda: not processes(board.home)), "left behind")

    def test_carrier_lost(self):
        board = self.board("S|0|Sleep|/bin/sh -c \"sleep 1000; : %H\"\nY|0|Yes|/usr/bin/yes %H\n", "LINES=1")
        quiet = board.descriptors()
        for key, program, leave in (("s", "sleep 1000; : " + board.home, "close"), ("y", "yes " + board.home, "close"), ("y", "yes " + board.home, "reset"),
                                    ("s", "sleep 1000; : " + board.home, "reset"), ("", "", "close"), ("", "", "reset")):
            with self.subTest(key=key, leave=leave):
                call = self.call(board)
                call.expect("Your choice: ")
                call.send(key)
                self.assertTrue(not key or eventually(lambda: processes(program)))
                call.reset() if leave == "reset" else call.socket.close()
                began = time.monotonic()
                self.assertTrue(eventually(lambda: board.descriptors() == quiet))
                self.assertLess(time.monotonic() - began, 1)
                self.assertTrue(eventually(lambda: not processes(board.home)), "left behind")

    def test_hostile_callers(self):
        board = self.board(settings="LINES=4")
        quiet = board.descriptors()
        streams = [bytes([IAC]), bytes([IAC, SB, NAWS]), bytes([IAC, SB, TTYPE, 0]) + b"x" * 100000,
                   bytes([IAC, DO, 86, IAC, SB, 86, IAC, SE]) + b"\x78\x9c" + b"\xff" * 100,
                   bytes([IAC, DO, 200, IAC, WILL, 201]) * 20000, b"\xff\xfa\x1f\xff\xff\xff\xf0" * 1000,
                   os.urandom(200000), b"WLWL?\r" * 2000]
        for i, stream in enumerate(streams * 2):
            call = self.call(board)
            try:
                call.send(stream)
            except OSError:
                pass  # it was closed on him
            call.reset() if i % 2 else call.socket.close()
            self.assertTrue(eventually(lambda: board.descriptors() == quiet), stream[:20])
        call = self.call(board)
        call.run("t", "Truth has ended")

    def test_times(self):
        board = self.board("S|0.03|Sleep|/bin/sh -c \"sleep 1000; : %H\"\n", "IDLE=0.03\nMINUTES=0.15")
        call = self.call(board)
        call.run("s", "Your time is over in 1 seconds.")
        call.expect("The time for it is over.")
        self.assertTrue(eventually(lambda: not processes(board.home)))
        call.expect("Your choice: ")
        call.expect("Are you there? This call ends in 1 seconds.")
        call.expect("Nobody seems to be there.")
        self.assertTrue(call.ended())
        busy = self.call(board)
        busy.socket.settimeout(0.2)
        while not busy.closed:
            busy.read(0.1)
            try:
                busy.send("?")
            except OSError:
                break
        self.assertIn(b"The time of this call is over", busy.seen)

    def test_daemon_killed(self):
        board = self.board("C|0|Cat|/bin/cat %H/none -\n")
        for _ in range(3):
            call, idle = self.call(board), self.call(board)
            call.run("c", "No such file")
            idle.expect("Your choice: ")
            os.kill(board.daemon(), signal.SIGKILL)
            call.expect("The service that runs programs was lost, and Cat with it.")
            self.assertTrue(eventually(lambda: not processes(board.home + "/none")))
            call.run("c", "No such file")
            call.socket.close()
            idle.send("g")
            self.assertTrue(idle.ended())
        self.assertEqual(board.log().count("The daemon is lost: "), 1)  # the same again is left out

    def test_no_room(self):
        board = self.board(settings="LINES=2")
        first, second = self.call(board), self.call(board)
        first.expect("Your choice: ")
        second.expect("Your choice: ")
        third = self.call(board, choose="")
        third.expect("All lines are busy.")
        self.assertTrue(third.ended())
        second.send("g")
        self.assertTrue(second.ended())
        quiet = board.descriptors()
        fds = sorted(map(int, os.listdir(f"/proc/{board.process.pid}/fd")))
        full = next(n for n in range(quiet + 1) if n not in fds)  # the lowest that is free
        resource.prlimit(board.process.pid, resource.RLIMIT_NOFILE, (full, full + 100))
        ticks = board.stat(14) + board.stat(15)
        for _ in range(20):
            turned = self.call(board, choose="")
            turned.expect("There is no room for this call.")
            self.assertTrue(turned.ended())
        self.assertLess(board.stat(14) + board.stat(15) - ticks, 20, "it turned in circles")
        first.send("t")
        first.expect("No room for Truth now.")
        resource.prlimit(board.process.pid, resource.RLIMIT_NOFILE, (full + 100, full + 100))
        first.run("t", "Truth has ended")

    def test_menu(self):
        board = self.board("# a comment\n\nX|0|Nothing|/none/there\nE|0|Three|/bin/sh -c \"exit 3\"\n"
                           "K|0|Killed|/bin/sh -c \"kill -9 $$\"\nB|0|Behind|/bin/sh -c \"sh -c 'sleep 1000; : %H' & echo hm\"\n"
                           "short|0\nxy|0|Long key|/bin/true\nG|0|Taken|/bin/true\nE|0|Again|/bin/true\n"
                           "F|many|Minutes|/bin/true\nF|0||/bin/true\nF|0|Relative|true\n")
        call = self.call(board)
        menu = call.expect("Your choice: ")
        self.assertEqual(re.findall(rb"\n  (\w)  ", menu), [b"X", b"E", b"K", b"B", b"W", b"L", b"G"])
        for number in range(7, 14):
            self.assertIn(f"harbour.menu:{number}: ", board.log())
        call.seen = b"Your choice: "
        call.run("x", "No such file")
        call.expect("Nothing has ended with exit code 255.")
        call.run("e", "Three has ended with exit code 3.")
        call.run("k", "Killed was ended by signal 9 (Killed).")
        call.run("b", "hm")
        call.expect("Behind has ended.")
        board.write("harbour.menu", "N|0|New|/bin/true\n")  # counts from the next call on
        call.run("e", "Three has ended")
        self.call(board).run("n", "New has ended")

    def test_start_failures(self):
        with open(build + "/harbour.mcv", encoding="latin-1") as f:
            texts = f.read()
        for cause, settings, change, status, said in (
                ("menu missing", "", lambda b: os.unlink(b.home + "/harbour.menu"), 1, "harbour.menu: No such"),
                ("menu empty", "", lambda b: b.write("harbour.menu", "#"), 1, "has no program"),
                ("lines", "LINES=0", None, 1, "LINES is no number"),
                ("idle", "IDLE=x", None, 1, "IDLE or MINUTES"),
                ("address", "LISTEN=here", None, 1, "ADDRESS:PORT"),
                ("languages missing", "", lambda b: os.unlink(b.home + "/pxhost.cfg"), -3, "CANNOT FIND"),
                ("default language", "", lambda b: b.write("pxhost.cfg", LANGUAGES.replace("ANSI", "RIP")), 1,
                 "first language"),
                ("texts missing", "", lambda b: b.env.update(MCVPATH=b.home), -3, "harbour.mcv"),
                ("texts cut", "", lambda b: b.write("harbour.mcv", texts[1000:]), -3, "harbour.mcv"),
                ("other texts", "", lambda b: subprocess.run(
                    [build + "/plexmsg", "compile", "greeting.txt", b.home + "/harbour.mcv"], check=True,
                    cwd=b.home, stdout=subprocess.DEVNULL), 1, "another version")):
            with self.subTest(cause):
                board = self.board(settings=settings, start=False)
                board.env["BBSLOG"] = "stdout"
                if "LISTEN" in settings:
                    board.write("cfg", f"HOME={board.home}\n{settings}\n")
                board.write("greeting.txt", "language English/ANSI\nmessage\ntext English/ANSI\n|a\n")
                if change:
                    change(board)
                board.start()
                code, out = board.outcome()
                self.assertEqual(code, status, out)
                self.assertIn(said, out)
        board = self.board()
        second = subprocess.run([build + "/harbour"], env=board.env, capture_output=True, text=True, check=False)
        self.assertEqual(second.returncode, 1)
        self.assertIn("another one runs in this home", second.stderr)

    def test_signals_end_it(self):
        for signo in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            board = self.board("S|0|Sleep|/bin/sh -c \"sleep 1000; : %H\"\nY|0|Yes|/usr/bin/yes %H\n")
            calls = [self.call(board) for _ in range(3)]
            for call, key in zip(calls, "sy"):
                call.expect("Your choice: ")
                call.send(key)
            self.assertTrue(eventually(lambda: len(processes(board.home)) == 2))
            board.process.send_signal(signo)
            if signo == signal.SIGKILL:  # as after a crash: nothing stays, all the same
                board.process.wait(60)
            else:
                calls[2].expect("The board closes now. Goodbye.")
                self.assertEqual(board.outcome(), (0, ""))
                self.assertEqual(sorted(os.listdir(board.home)),
                                 ["cfg", "harbour.log", "harbour.menu", "pxhost.cfg", "vosterd.log"])
            self.assertTrue(eventually(lambda: not processes(board.home)), "left behind")


if __name__ == "__main__":
    unittest.main(verbosity=2)
