#!/usr/bin/env python3
"""harbour, over real sockets. Most callers here are sockets that speak as much telnet as a test needs. One whole
visit is made with a telnet client of Debian's, and the operator sits at plexview, both on terminals that tmux keeps.
"""
import contextlib
import os
import re
import resource
import signal
import socket
import struct
import subprocess
import time

import blackbox
from blackbox import BUILD, PATIENCE, children, descriptors, slurp, spew, stat, status

IAC, DONT, DO, WONT, WILL, SB, SE = 255, 254, 253, 252, 251, 250, 240
EL, EC, AYT, IP, BREAK, DM, EOF = 248, 247, 246, 244, 243, 242, 236
EPOLLOUT, CLONE_NEWIPC = 4, 0x08000000
BINARY, ECHO, SGA, TTYPE, NAWS = 0, 1, 3, 24, 31
LANGUAGES = "NLingo=2\nLNG=English/ANSI\nLNGYES=yes\nLNGNO=no\nLNG=English/ASCII\n"
SLEEP = "S|0|Sleep|/bin/sh -c \"sleep 1000; :\"\n"
YES = "Y|0|Yes|/usr/bin/yes on and on\n"
CAT = "C|0|Cat|/bin/cat /none/such -\n"

LEAN = {"ASAN_OPTIONS": "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"}

# A telnet command: a doubled byte, a subnegotiation, one with an option, a plain one.
COMMAND = rb"\xff(?:(\xff)|\xfa.*?\xff\xf0|[\xfb-\xfe].|[^\xfa-\xff])"


class Call:
    """A caller, of plain text unless he chooses. What he was sent is in `all`; data still to be looked at in `seen`."""

    def __init__(self, port, choose="2"):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.all, self.raw, self.seen, self.closed = b"", b"", b"", False
        self.send(choose)

    def size(self, columns, rows):
        self.send(bytes([IAC, WILL, NAWS, IAC, SB, NAWS]) + struct.pack(">HH", columns, rows) + bytes([IAC, SE]))

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def read(self, seconds):
        data = b""
        if blackbox.readable(self.socket, seconds):
            with contextlib.suppress(ConnectionResetError):
                data = self.socket.recv(65536)
            self.closed = not data
        self.raw += data
        whole = re.match(rb"(?:[^\xff]+|" + COMMAND + rb")*", self.raw, re.S)[0]
        self.raw = self.raw[len(whole):]
        self.all += whole
        self.seen += re.sub(COMMAND, rb"\1", whole, flags=re.S)
        return bool(data)

    def expect(self, text):
        """Reads up to the text and takes that off: what came before it."""
        text = text if isinstance(text, bytes) else text.encode()
        end = time.monotonic() + 2 * PATIENCE
        while text not in self.seen:
            if time.monotonic() > end or self.closed or not self.read(end - time.monotonic()):
                raise AssertionError(f"no {text!r} in {self.seen[-2000:]!r}, closed: {self.closed}")
        before, _, self.seen = self.seen.partition(text)
        return before

    def run(self, key, shows):
        self.expect("Your choice: ")
        self.send(key)
        self.expect(shows)

    def end(self):
        """Reads to the end, which has to come."""
        while not self.closed:
            assert self.read(PATIENCE) or self.closed, f"the call goes on behind {self.seen[-2000:]!r}"

    def leave(self, reset):
        if reset:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Screen:
    """A terminal that tmux keeps."""

    def __init__(self, name, command, columns=80, rows=26):
        self.name = name
        self.tmux("new-session", "-d", "-s", name, "-x", str(columns), "-y", str(rows),
                  command + "; echo status=$?; exec cat")

    def tmux(self, *args):
        return subprocess.run(["tmux", "-u", "-S", "./tmux", "-f", "/dev/null", *args], capture_output=True,
                              text=True, check=False, env={**os.environ, "LC_ALL": "C.UTF-8", "SHELL": "/bin/sh"}).stdout

    def keys(self, *keys):
        self.tmux("send-keys", "-t", self.name, *keys)

    def shows(self, pattern):
        end = time.monotonic() + 2 * PATIENCE
        while not re.search(pattern, shown := self.tmux("capture-pane", "-p", "-t", self.name)):
            assert time.monotonic() < end, f"no {pattern!r} in\n{shown}\n{slurp('harbour.log')}"
            time.sleep(0.01)


def descendants(pid):
    """How many processes a process has, with those of its children"""
    return sum(1 + descendants(child) for child in children(pid) if stat(child)[0] not in "Z-")


class Harbour(blackbox.DaemonSuite):
    file = f"{BUILD}/harbour"

    def board(self, menu="T|0|Truth|/bin/true\n", settings="", env=(), ready=True, **change):
        self.endall()
        spew("pxhost.cfg", LANGUAGES)
        spew("harbour.menu", menu)
        for name, text in change.items():
            name = name.replace("_", ".")
            os.unlink(name) if text is None else spew(name, text)
        self.start(cfg=f"{settings}\nLISTEN=127.0.0.1:0\n", env={"BBSLOG": "file", **dict(env)})  # the first one counts
        if ready:
            self.eventually(lambda: "listening at" in slurp("harbour.log"), lambda: slurp("stderr"))
            self.port = int(re.findall(r"listening at .*:(\d+)\n", slurp("harbour.log"))[-1])
            self.idle = len(descriptors(self.daemon.pid))

    def call(self, *args, **kwargs):
        call = Call(self.port, *args, **kwargs)
        self.addCleanup(call.socket.close)
        return call

    def quiet(self):
        """Waits until the board has given everything back and runs nothing but its daemon"""
        self.eventually(lambda: (len(descriptors(self.daemon.pid)), descendants(os.getpid())) == (self.idle, 2),
                        lambda: f"left: {descriptors(self.daemon.pid)}, {descendants(os.getpid())} processes")

    def asks(self, events):
        """Whether the board waits for these events of anything"""
        epoll = next(fd for fd, name in descriptors(self.daemon.pid).items() if "eventpoll" in name)
        fds = slurp(f"/proc/{self.daemon.pid}/fdinfo/{epoll}")
        return any(int(asked, 16) & events for asked in re.findall(r"events: +(\w+)", fds))

    def resident(self):
        return int(status(self.daemon.pid, "VmRSS").split()[0])

    # A visit with somebody else's client, in the home that --demo makes.
    def testVisit(self):
        self.start("--demo", env={"BBSDISP": "nullcon", "BBSLOG": "stdout", "TMPDIR": self.home, "BBSCONFIG": None},
                   stdout=open("out", "w", encoding="ascii"))
        self.eventually(lambda: "end it with" in slurp("out"), lambda: slurp("out"))
        caller = Screen("caller", re.search(r"telnet [\d.]+ \d+", slurp("out"))[0], 91, 33)
        caller.shows("3  Deutsch, farbig")
        caller.keys("3")
        caller.shows("1  ┌─┬─┐ ╔═╦═╗ ░▒▓█ äöü ß")
        caller.keys("1")
        caller.shows(r"│  harbour +Leitung 1  +│(?s:.*)Ihre Wahl:")
        caller.keys("w")
        caller.shows(r"\n1     \(am Menü\) +0:00\n")
        caller.keys("s")
        caller.shows(r"erase = \^\?;(?s:.*)eof = \^D;(?s:.*) iutf8")
        caller.shows("My terminal's settings ist zu Ende")
        caller.keys("e")
        caller.shows("Ihre Wahl: An echo")
        caller.keys("grüßä", "BSpace", "e", "Enter")
        caller.shows("grüße\ngrüße\n")
        caller.keys("C-d")
        caller.shows(r"An echo \(Ctrl\+C ends it\) ist zu Ende")
        caller.keys("e", "hm", "Enter")
        caller.shows("hm\nhm\n")  # before that ^C would meet nobody
        caller.keys("C-c")
        caller.shows(r"durch Signal 2 \(Interrupt\)")
        caller.keys("g")
        caller.shows(r"Auf Wiedersehen. Sie waren 0:\d\d hier.")
        caller.shows("Connection closed by foreign host.\nstatus=0")
        self.signal(signal.SIGINT)
        self.assertEqual(self.wait()[0], 0)
        self.assertEqual([f for f in os.listdir() if f.startswith("plexrun")], [])

    def testOperator(self):
        blackbox.libc.unshare(CLONE_NEWIPC)  # for root, who has one segment for all his consoles
        self.board(CAT + YES, env={"BBSDISP": "viewer"})
        operator = Screen("operator", f"{BUILD}/plexview {self.home}")
        operator.shows(r"harbour +127.0.0.1:\d+ +0 of 32 lines +\d\d-[A-Z]{3}-\d\d \d\d:\d\d:\d\d\n"
                       r" Line  State +From +Program +On for +In +Out\n +1  free\n(?s:.*)\n +16  free\n"
                       r"─{80}\n\n\n\n\n\n +↑↓ choose   V view   M message   K end program   D end call   Q end all")
        operator.keys("v", "m", "d", "k", "PPage", "NPage", "Down", "Down")  # there is nobody to do it to
        operator.shows(r"\n +4  free\n(?s:.*)\n +19  free\n─")
        operator.keys("PPage", "Up", "Up")
        first, call = self.call(), self.call(choose="11")
        call.run("c", "none/such: No such file")
        operator.shows(r"\n    1  menu +127(?s:.*)\n    2  running +127\.0\.0\.1:\d+ +Cat +0:\d\d:\d\d +\d\d? +\d{3,4}\n")
        operator.shows(r"\n \d\d:\d\d:\d\d  Line 1: a call from 127(?s:.*)Line 2: Cat starts: /bin/cat /none/such -\n")
        operator.keys("Down", "v", "Down")
        operator.shows(r"Cat(?s:.*)No such file(?s:.*)\n  V back .* line 2  Cat")
        call.send("\x1b[5;10Hl\xc3\xa4uft\x1b[1\n".encode("latin-1"))
        operator.shows(r"\^\[\[5;10Hläuft")
        operator.shows(r"\n.{9}läuft")
        operator.keys("m")
        operator.shows(r"╔═{62}╗.*\n.*║ To line 2: {51}║.*(\n.*║ {62}║.*){3}\n.*╚═{62}╝")
        operator.keys("Tea, ~5 o'clock?", "BSpace", "!")
        operator.shows("║ Tea, ~5 o'clock! +║")
        operator.keys("Enter")
        call.expect("The operator: Tea, ~5 o'clock! ")
        operator.keys("v", "k", "n", "k")
        operator.shows(r"Line 2: end Cat\? \(y: yes\)")
        operator.keys("y")
        call.expect("The operator has ended your program.")
        call.run("y", "on and on")
        self.eventually(lambda: self.asks(EPOLLOUT))  # he reads no more of it
        operator.shows(r"\n    2  running .* Yes +0:\d\d:\d\d +\d\d? +\d+[KM]\n")
        operator.keys("v", "d")
        operator.shows(r"\non and on\n(?s:.*)End the call on line 2\? \(y: yes\)")
        operator.keys("y")
        call.expect("The operator ends this call.")
        call.end()
        operator.shows(r"\n    2  free\n(?s:.*)Line 2: the call from 127")
        operator.keys("q", "Escape", "q", "n", "q")
        operator.shows(r"Say goodbye to all callers and end\? \(y: yes\)")
        operator.keys("y")
        first.expect("The board closes now. Goodbye.")
        self.assertEqual(self.wait(), (0, ""))
        operator.shows("status=0")

    # Every byte, both ways; and for those who refuse it, a network terminal's line ends.
    def testBytes(self):
        self.board("R|0|Raw|/bin/sh -c \"stty raw -echo; echo ready; exec cat\"\n")
        call = self.call()
        call.send(bytes([IAC, DO, BINARY, IAC, WILL, BINARY]))
        call.run("r", "ready\n")
        every = bytes(range(256)) * 64
        call.send(every.replace(b"\xff", b"\xff\xff"))
        call.expect(every)
        plain = self.call()
        plain.run("R", "ready\n")
        for sent, echoed in ((b"a\r\0b", b"a\r\0b"), (b"c\r\nd", b"c\r\0d"), (b"e\r", b"e\r"),
                             (b"\0f", b"\0f"), (b"\r", b"\r"), (b"\ng\n", b"\0g\n"), (b"\xff\xff", b"\xff")):
            plain.send(sent)
            self.assertEqual(plain.expect(echoed), b"", sent)
        for offer in (WILL, ECHO), (WILL, SGA), (WILL, BINARY), (DO, BINARY), (DO, NAWS), (DO, TTYPE):
            self.assertIn(bytes([IAC, *offer]), plain.all)

    def testTerminal(self):
        script = "trap 'stty size' WINCH; trap 'echo quit' QUIT; stty size; while :; do sleep 0.01; done"
        self.board(f"S|0|Size|/bin/sh -c \"{script}\"\nN|0|Name|/bin/echo <%t>\nA|0|All|/bin/stty -a\n"
                   "C|0|Cat|/bin/cat\n", "IUTF8=no")
        call = self.call()
        call.size(132, 43)
        call.run("s", "43 132\r\n")
        call.size(40, 10)
        call.expect("10 40\r\n")
        call.size(0, 0)
        call.expect("24 80\r\n")
        call.send(bytes([IAC, BREAK]))
        call.expect("quit\r\n")
        call.send(bytes([IAC, IP]))
        call.expect("ended by signal 2 (Interrupt)")
        for name, shown in (("XTerm-256color", "xterm-256color"), ("a b", "ansi"), ('"; x', "ansi")):
            call.send(bytes([IAC, WILL, TTYPE, IAC, SB, TTYPE, 0]) + name.encode() + bytes([IAC, SE]))
            call.run("n", f"<{shown}>")
        call.run("a", "-iutf8")
        call.expect("Your choice: ")
        call.send(b"cahead\n")  # of the program
        call.expect("\r\nahead\r\n")
        call.send(b"wrong" + bytes([IAC, EL]) + b"rix" + bytes([IAC, EC]) + b"ght\n")
        call.expect("\r\nright\r\n")
        call.socket.send(bytes([IAC, DM]), socket.MSG_OOB)  # the mark behind an interrupt
        call.send(b"still\n")
        call.expect("\r\nstill\r\n")
        call.send(bytes([IAC, AYT]))
        call.expect("[harbour]")
        call.send(bytes([IAC, EOF]))
        call.expect("Cat has ended")

    def testWhoDoesNotReadStopsHimself(self):
        self.board(YES + SLEEP + CAT, env={"BBSDISP": "nullcon", **LEAN})
        call, other, typist = self.call(), self.call(), self.call()
        call.run("y", "on and on")
        yes = children(children(self.daemon.pid)[0])[0]
        # The board asks to be told of room for him alone, and the program waits to write.
        self.eventually(lambda: self.asks(EPOLLOUT) and stat(yes)[0] == "S", "the program was never stopped")
        memory = self.resident()
        typist.run("s", "Sleep")
        typist.socket.setblocking(False)
        with self.assertRaises(BlockingIOError, msg="all was taken from one whose program does not read"):
            for _ in range(1000):
                typist.socket.send(b"x" * 65536)
        other.run("c", "No such file or directory\r\n")
        for i in range(100):
            other.send(f"{i}\n")
            other.expect(f"{i}\r\n{i}\r\n")
        self.assertLess(self.resident() - memory, 1024)
        call.expect("on and on")  # and it goes on when he does
        for one in (typist, call, other):
            one.leave(True)
        self.quiet()

    def testCarrierLost(self):
        self.board(SLEEP + YES, "LINES=1")
        for key, reset in ("s", False), ("s", True), ("y", False), ("y", True), ("", False), ("", True):
            with self.subTest(key=key, reset=reset):
                call = self.call()
                call.expect("Your choice: ")
                call.send(key)
                self.eventually(lambda: not key or children(children(self.daemon.pid)[0]))
                call.leave(reset)
                began = time.monotonic()
                self.eventually(lambda: len(descriptors(self.daemon.pid)) == self.idle)
                self.assertLess(time.monotonic() - began, 1)
                self.quiet()

    def testHostileCallers(self):
        self.board(settings="LINES=4")
        compressed = bytes([IAC, DO, 86, IAC, SB, 86, IAC, SE]) + b"\x78\x9c" + b"\xff" * 100
        streams = [b"", bytes([IAC]), bytes([IAC, SB, NAWS]), bytes([IAC, SB, TTYPE, 0]) + b"x" * 100000,
                   bytes([IAC, DO, 200, IAC, WILL, 201]) * 20000, b"\xff\xfa\x1f\xff\xff\xff\xf0" * 1000,
                   compressed, os.urandom(200000), b"WLWL?\r" * 2000]
        silent = self.call(choose="")
        slow = self.call(choose="")
        for i, stream in enumerate(streams * 2):
            call = self.call()
            with contextlib.suppress(OSError):  # it was closed on him
                call.send(stream)
            call.leave(i % 2)
            slow.send("2?????t???????????"[i])  # a byte a minute, and what is meant with it stands
        refused = self.call()
        refused.send(compressed)
        refused.end()
        self.eventually(lambda: len(descriptors(self.daemon.pid)) == self.idle + 2)
        slow.expect("Truth has ended")
        silent.expect("Press its number.")
        self.call().run("t", "Truth has ended")

    def testTenThousandInARow(self):
        signal.alarm(290)
        self.board(env=LEAN)
        for i in range(10000):
            if i == 200:
                self.eventually(lambda: len(descriptors(self.daemon.pid)) == self.idle)
                before = self.resident()
            call = Call(self.port)
            if i % 10 == 0:
                call.run("t", "Truth has ended")
            call.send("g")
            if i % 10 != 1:  # who is gone at once
                call.end()
            call.leave(False)
        self.quiet()
        self.assertLessEqual(self.resident(), before + 256)

    def testTimes(self):
        self.board("S|0.03|Sleep|/bin/sh -c \"sleep 1000; :\"\n", "IDLE=0.03\nMINUTES=0.15")
        call = self.call()
        call.run("s", "Your time is over in 1 seconds.")
        call.expect("The time for it is over.")
        self.eventually(lambda: descendants(os.getpid()) == 2)
        call.expect("Your choice: ")
        call.expect("Are you there? This call ends in 1 seconds.")
        call.expect("Nobody seems to be there.")
        call.end()
        busy = self.call()
        with contextlib.suppress(OSError):
            while not busy.closed:
                busy.read(0.1)
                busy.send("?")
        self.assertIn(b"The time of this call is over", busy.seen)

    def testDaemonKilled(self):
        self.board(CAT, "LINES=1000")
        soft, hard = resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE)
        self.assertTrue(soft >= 2064 or 0 <= hard < 2064, (soft, hard))
        for _ in range(3):
            call, idle = self.call(), self.call()
            call.run("c", "No such file")
            idle.expect("Your choice: ")
            os.kill(children(self.daemon.pid)[0], signal.SIGKILL)
            call.expect("The service that runs programs was lost, and Cat with it.")
            call.run("c", "No such file")
            call.leave(False)
            idle.send("g")
            idle.end()
            self.quiet()
        self.assertEqual(slurp("harbour.log").count("The daemon is lost: "), 3)

    def testNoRoom(self):
        self.board(settings="LINES=2")
        first, second = self.call(), self.call()
        first.expect("Your choice: ")
        second.expect("Your choice: ")
        third = self.call(choose="")
        third.expect("All lines are busy.")
        third.end()
        second.send("g")
        second.end()
        fds = descriptors(self.daemon.pid)
        full = next(n for n in range(len(fds) + 1) if n not in fds)  # the lowest that is free
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (full, full + 100))
        ticks = sum(map(int, stat(self.daemon.pid)[11:13]))
        for _ in range(20):
            turned = self.call(choose="")
            turned.expect("There is no room for this call.")
            turned.end()
        self.assertLess(sum(map(int, stat(self.daemon.pid)[11:13])) - ticks, 20, "it turned in circles")
        first.send("t")
        first.expect("No room for Truth now.")
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (full + 100, full + 100))
        first.run("t", "Truth has ended")
        self.assertEqual(slurp("harbour.log").count("No descriptor left"), 1)

    def testMenu(self):
        self.board("# a comment\n\nX|0|Nothing|/none/there\nE|0|Three|/bin/sh -c \"exit 3\"\n"
                   "K|0|Killed|/bin/sh -c \"kill -9 $$\"\nB|0|Behind|/bin/sh -c \"sh -c 'sleep 1000; :' & echo hm\"\n"
                   "short|0\nxy|0|Long key|/bin/true\nG|0|Taken|/bin/true\nw|0|Taken|/bin/true\nl|0|Taken|/bin/true\n"
                   "?|0|Taken|/bin/true\nE|0|Again|/bin/true\n"
                   "F|many|Minutes|/bin/true\nF|0||/bin/true\nF|0|Relative|true\n")
        call = self.call()
        menu = call.expect("Your choice: ")
        self.assertEqual(re.findall(rb"\n  (\w)  ", menu), [b"X", b"E", b"K", b"B", b"W", b"L", b"G"])
        for number in range(7, 17):
            self.assertIn(f"harbour.menu:{number}: ", slurp("harbour.log"))
        call.seen = b"Your choice: "
        call.run("x", "No such file")
        call.expect("Nothing has ended with exit code 255.")
        call.run("e", "Three has ended with exit code 3.")
        call.run("k", "Killed was ended by signal 9 (Killed).")
        call.run("b", "hm")
        call.expect("Behind has ended.")
        self.assertIn("Line 1: Killed was ended by signal 9 (Killed).\n", slurp("harbour.log"))
        spew("harbour.menu", "N|0|New|/bin/true\n")  # counts from the next call on
        call.run("e", "Three has ended")
        self.call().run("n", "New has ended")

    def testStartFailures(self):
        texts = slurp(f"{BUILD}/harbour.mcv")
        spew("greeting.txt", "language English/ANSI\nmessage\ntext English/ANSI\n|a\n")
        subprocess.run([f"{BUILD}/plexmsg", "compile", "greeting.txt", "other"], check=True, stdout=subprocess.DEVNULL)
        for change, code, said in (
                ({"harbour_menu": None}, 1, "harbour.menu: No such"),
                ({"menu": "#"}, 1, "has no program"),
                ({"settings": "LINES=0"}, 1, "LINES is no number from 1 to 1000"),
                ({"settings": "IDLE=x"}, 1, "IDLE is no number"),
                ({"settings": "LISTEN=here"}, 1, "ADDRESS:PORT"),
                ({"settings": "LISTEN=127.0.0.1:99999"}, 1, "ADDRESS:PORT"),
                ({"settings": "LISTEN=192.0.2.1:0"}, 1, "cannot listen"),
                ({"pxhost_cfg": None}, -3, "CANNOT FIND"),
                ({"pxhost_cfg": LANGUAGES.replace("ANSI", "RIP")}, 1, "first language"),
                ({"env": {"MCVPATH": self.home}}, -3, "harbour.mcv"),
                ({"harbour_mcv": texts[1000:]}, -3, "harbour.mcv"),
                ({"harbour_mcv": slurp("other")}, 1, "another version")):
            with self.subTest(said=said):
                self.board(ready=False, **{**change, "env": {"BBSLOG": "stdout", **change.get("env", {})}})
                got = self.wait()
                self.assertEqual(got[0], code, got[1])
                self.assertIn(said, got[1])
                self.assertEqual(descendants(os.getpid()), 0)
            with contextlib.suppress(OSError):
                os.unlink("harbour.mcv")
        for args, code, said in (((), 1, "another one runs in this home"), (("-x",), 2, "unknown option"),
                                 (("more",), 2, "unknown argument"), (("--help",), 0, "usage: harbour")):
            self.board() if not args else None
            second = subprocess.run([self.file, *args], env=self.environment({"BBSCONFIG": f"{self.home}/cfg"}),
                                    capture_output=True, text=True, check=False)
            self.assertEqual(second.returncode, code)
            self.assertIn(said, second.stdout + second.stderr)

    def testSignalsEndIt(self):
        for signo in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            self.board(SLEEP + YES)
            calls = [self.call() for _ in range(3)]
            for call, key in zip(calls, "sy"):
                call.expect("Your choice: ")
                call.send(key)
            self.eventually(lambda: len(children(children(self.daemon.pid)[0])) == 2)
            self.signal(signo)
            if signo == signal.SIGKILL:  # as after a crash: nothing stays, all the same
                self.daemon.wait(PATIENCE)
            else:
                calls[2].expect("The board closes now. Goodbye.")
                self.assertEqual(self.wait(), (0, ""))
                self.assertEqual(sorted(os.listdir()), ["cfg", "harbour.log", "harbour.menu", "pxhost.cfg", "stderr",
                                                        "vosterd.log"])
                os.unlink("harbour.log")
            self.eventually(lambda: descendants(os.getpid()) == 0, "left behind")


if __name__ == "__main__":
    blackbox.main()
