#!/usr/bin/env python3
"""harbour, over real sockets. One visit is made with Debian's telnet, and the operator sits at plexview."""
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

IAC, DO, WILL, SB, SE = 255, 253, 251, 250, 240
EL, EC, AYT, IP, BREAK, DM, EOF = 248, 247, 246, 244, 243, 242, 236
BINARY, ECHO, SGA, TTYPE, NAWS = 0, 1, 3, 24, 31
EPOLLOUT, CLONE_NEWIPC = 4, 0x08000000
LANGUAGES = "NLingo=2\nLNG=English/ANSI\nLNGYES=yes\nLNGNO=no\nLNG=English/ASCII\n"
PROGRAMS = """T|0|Truth|/bin/true
S|0.03|Sleep|/bin/sh -c "sleep 1000; :"
F|0|For ever|/bin/sh -c "sleep 1000; :"
Y|0|Yes|/usr/bin/yes on and on
C|0|Cat|/bin/cat /none/such -
E|0|Three|/bin/sh -c "sleep 0.5; exit 3"
"""
LEAN = {"ASAN_OPTIONS": "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"}

# A telnet command: a doubled byte, a subnegotiation, one with an option, a plain one.
COMMAND = rb"\xff(?:(\xff)|\xfa.*?\xff\xf0|[\xfb-\xfe].|[^\xfa-\xff])"


class Call:
    """A caller, of plain text unless he chooses. What he was sent is in `all`; data still to be looked at in `seen`."""

    def __init__(self, port, choose="2"):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.all, self.raw, self.seen, self.closed = b"", b"", b"", False
        self.send(choose)

    def send(self, *data, shows=None):
        """Text, bytes, and the numbers of telnet commands; after which he is shown this"""
        self.socket.sendall(b"".join(bytes([d]) if isinstance(d, int) else d.encode() if isinstance(d, str) else d
                                     for d in data))
        return self.expect(shows) if shows else None

    def read(self):
        data = b""
        if blackbox.readable(self.socket):
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
            assert time.monotonic() < end and self.read(), \
                f"no {text!r} in {self.seen[-2000:]!r}, closed: {self.closed}\n" + slurp("harbour.log")[-2000:]
        before, _, self.seen = self.seen.partition(text)
        return before

    def run(self, key, shows):
        self.expect("Your choice: ")
        self.send(key, shows=shows)

    def end(self):
        """Reads to the end, which has to come."""
        while self.read():
            pass
        assert self.closed, f"the call goes on behind {self.seen[-2000:]!r}"

    def leave(self, reset=0):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", reset, 0))
        self.socket.close()


class Screen(blackbox.Screen):
    def keys(self, *keys, shows):
        """Presses keys, after which the screen comes to show this"""
        super().keys(*keys)
        self.shows(shows)


class Harbour(blackbox.DaemonSuite):
    file = f"{BUILD}/harbour"

    def board(self, settings="", menu=PROGRAMS, env=(), ready=True, args=(), **change):
        self.endall()
        for name, text in {"pxhost_cfg": LANGUAGES, "harbour_menu": menu, **change}.items():
            name = name.replace("_", ".")
            os.unlink(name) if text is None else spew(name, text)
        # Of two settings the first one counts.
        self.start(*args, cfg=f"{settings}\nLISTEN=127.0.0.1:0\n", env={"BBSLOG": "file", **dict(env)})
        if ready:
            self.eventually(lambda: "listening at" in slurp("harbour.log"), lambda: slurp("stderr"))
            port = int(re.findall(r"listening at .*:(\d+)\n", slurp("harbour.log"))[-1])
            self.call = lambda choose="2": Call(port, choose)
            self.idle = len(descriptors(self.daemon.pid))

    def quiet(self, callers=0):
        """Waits until the board has given everything else back, at once, and runs nothing but its daemon"""
        began = time.monotonic()
        self.open_(self.idle + callers)
        self.assertLess(time.monotonic() - began, 1)
        self.eventually(lambda: not self.running(self.commands()[0]) and len(self.running(os.getpid())) == 1)

    def asks(self, events):
        """Whether the board waits for these events of anything"""
        epoll = next(fd for fd, name in descriptors(self.daemon.pid).items() if "eventpoll" in name)
        fds = slurp(f"/proc/{self.daemon.pid}/fdinfo/{epoll}")
        return any(int(asked, 16) & events for asked in re.findall(r"events: +(\w+)", fds))

    def resident(self):
        return int(status(self.daemon.pid, "VmRSS").split()[0])

    def testVisit(self):
        self.start("--demo", env={"BBSDISP": "nullcon", "BBSLOG": "stdout", "TMPDIR": self.home, "BBSCONFIG": None},
                   stdout=open("out", "w", encoding="ascii"))
        self.eventually(lambda: "end it with" in slurp("out"), lambda: slurp("out"))
        caller = Screen("screen", re.search(r"telnet [\d.]+ \d+", slurp("out"))[0], "91", "33")
        caller.keys(shows="3  Deutsch, farbig")
        caller.keys("4", "3", shows="1  ┌─┬─┐ ╔═╦═╗ ░▒▓█ äöü ß")
        caller.keys("1", shows=r"│  harbour +Leitung 1  +│(?s:.*)Ihre Wahl:")
        caller.keys("s", shows=r"erase = \^\?;(?s:.*)eof = \^D;(?s:.*) iutf8(?s:.*)My terminal's settings ist zu Ende")
        caller.keys("w", shows=r"\n1     \(am Menü\) +0:00\n")
        caller.keys("e", shows="Ihre Wahl: An echo")
        caller.keys("grüßä", "BSpace", "e", "Enter", shows="grüße\ngrüße\n")
        caller.keys("C-d", shows=r"An echo \(Ctrl\+C ends it\) ist zu Ende")
        caller.keys("e", "hm", "Enter", shows="hm\nhm\n")  # before that ^C would meet nobody
        caller.keys("C-c", shows=r"durch Signal 2 \(Interrupt\)")
        caller.keys("g", shows=r"Auf Wiedersehen. Sie waren 0:\d\d hier.\s+Connection closed.*\nstatus=0")
        self.signal(signal.SIGINT)
        self.assertEqual(self.wait()[0], 0)
        self.assertEqual([f for f in os.listdir() if f.startswith("plexrun")], [])

    def testOperator(self):
        blackbox.libc.unshare(CLONE_NEWIPC)  # for root, who has one segment for all his consoles
        self.board(env={"BBSDISP": "viewer"})
        operator = Screen("screen", f"{BUILD}/plexview {self.home}")
        operator.keys(shows=r"harbour +127.0.0.1:\d+ +0 of 32 lines +\d\d-[A-Z]{3}-\d\d \d\d:\d\d:\d\d\n"
                      r" Line  State +From +Program +On for +In +Out\n +1  free\n(?s:.*)\n +16  free\n"
                      r"─{80}\n\n\n\n\n\n +↑↓ choose   V view   M message   K end program   D end call   Q end all")
        operator.keys("v", "m", "d", "k", "PPage", "NPage", "Down", "Down",  # there is nobody to do it to
                      shows=r"\n +4  free\n(?s:.*)\n +19  free\n─")
        first, call = self.call(), self.call(choose="11")
        call.run("c", "none/such: No such file")
        operator.keys("PPage", "Up", "Up", shows=r"\n    1  menu +127(?s:.*)\n    2  running +127\.0\.0\.1:\d+ +Cat "
                      r"+0:\d\d:\d\d +\d\d? +\d{3,4}\n(?s:.*)\n \d\d:\d\d:\d\d  Line 1: a call from 127(?s:.*)"
                      r"Line 2: Cat starts: /bin/cat /none/such -\n")
        operator.keys("Down", "v", "Down", shows=r"Cat(?s:.*)No such file(?s:.*)\n  V back .* line 2  Cat")
        call.send("\x1b[5;10Hl\xc3\xa4uft\x1b[1\n".encode("latin-1"))
        operator.keys(shows=r"(?s)(?=.*\^\[\[5;10Hläuft).*\n[^\n]{9}läuft")
        call.send("and on\n")
        operator.keys(shows=r"läuft.*\nand on─")  # where the first bytes ended
        operator.keys("m", shows=r"╔═{62}╗.*\n.*║ To line 2: {51}║.*(\n.*║ {62}║.*){3}\n.*╚═{62}╝")
        operator.keys("Tea, ~5 o'clock?", "BSpace", "!", shows="║ Tea, ~5 o'clock! +║")
        operator.keys("Enter", "v", "k", "n", "k", shows=r"Line 2: end Cat\? \(y: yes\)")
        call.expect("The operator: Tea, ~5 o'clock! ")
        operator.keys("y", shows="Line 2: The operator has ended your program")
        call.expect("The operator has ended your program.")
        call.run("y", "on and on")
        self.eventually(lambda: self.asks(EPOLLOUT))  # he reads no more of it
        operator.keys(shows=r"\n    2  running .* Yes +0:\d\d:\d\d +\d\d? +\d+[KM]\n")
        operator.keys("v", "d", shows=r"\non and on\n(?s:.*)End the call on line 2\? \(y: yes\)")
        operator.keys("y", shows="")
        call.expect("The operator ends this call.")
        call.end()
        operator.keys(shows=r"\n    2  free\n(?s:.*)Line 2: the call from 127")
        operator.keys("q", "Escape", "q", "n", "q", shows=r"Say goodbye to all callers and end\? \(y: yes\)")
        operator.keys("y", shows="status=0")
        first.expect("The board closes now. Goodbye.")
        self.assertEqual(self.wait(), (0, ""))

    def testMenuAndTerminal(self):
        script = "trap 'stty size' WINCH; trap 'echo quit' QUIT; stty size; while :; do sleep 0.01; done"
        good = ["# a comment", "", f"S|0|Size|/bin/sh -c \"{script}\"", "N|0|Name|/bin/echo <%t>", "C|0|Cat|/bin/cat",
                "A|0|All|/bin/stty -a", "R|0|Raw|/bin/sh -c \"stty raw -echo; echo ready; exec cat\"",
                "X|0|Nothing|/none/there", "K|0|Killed|/bin/sh -c \"kill -9 $$\"",
                "B|0|Behind|/bin/sh -c \"sh -c 'sleep 1000; :' & echo hm\""]
        wrong = [("short|0", "KEY"), ("xy|0|Long key|/bin/true", "key"), ("C|0|Again|/bin/true", "taken"),
                 *((f"{key}|0|Its own|/bin/true", "has") for key in "GwL?"),
                 ("F|many|Minutes|/bin/true", "minutes"), ("F|0||/bin/true", "title"), ("F|0|Relative|true", "path")]
        self.board("IUTF8=no", "\n".join(good + [line for line, _ in wrong]))
        call = self.call()
        keys = re.findall(rb"\n  (\w)  ", call.expect("Your choice: "))
        self.assertEqual(b"".join(keys), b"SNCARXKBWLG")
        for number, (_, why) in enumerate(wrong, len(good) + 1):
            self.assertRegex(slurp("harbour.log"), rf"harbour.menu:{number}: .*{why}")
        plain = self.call()
        plain.expect("Your choice: ")
        spew("harbour.menu", "N|0|New|/bin/true\n")  # counts from the next call on
        self.call().run("n", "New has ended")
        call.send("x", shows="Nothing has ended with exit code 255.")
        call.run("k", "Killed was ended by signal 9 (Killed).")
        call.run("b", "Behind has ended.")
        self.assertIn("Line 1: Killed was ended by signal 9 (Killed).\n", slurp("harbour.log"))
        for size, shown in ((132, 43), "s43 132\r\n"), ((40, 10), "10 40\r\n"), ((0, 0), "24 80\r\n"):
            call.send(IAC, WILL, NAWS, IAC, SB, NAWS, struct.pack(">HH", *size), IAC, SE)
            call.run("s", shown[1:]) if shown[0] == "s" else call.expect(shown)
        call.send(IAC, BREAK, shows="quit\r\n")
        call.send(IAC, IP, shows="ended by signal 2 (Interrupt)")
        for name, shown in (("XTerm-256color", "xterm-256color"), ("a b", "ansi"), ('"; x', "ansi")):
            call.send(IAC, WILL, TTYPE, IAC, SB, TTYPE, 0, name, IAC, SE)
            call.run("n", f"<{shown}>")
        call.run("a", "-iutf8")
        call.run("cahead\n", "\r\nahead\r\n")  # typed ahead of the program
        call.send("wrong", IAC, EL, "rix", IAC, EC, "ght\n", shows="\r\nright\r\n")
        call.socket.send(bytes([IAC, DM]), socket.MSG_OOB)  # the mark behind an interrupt
        call.send("still\n", shows="\r\nstill\r\n")
        call.send(IAC, AYT, shows="[harbour]")
        call.send(IAC, EOF, shows="Cat has ended")
        # Every byte, both ways; and for those who refuse it, a network terminal's line ends.
        call.send(IAC, DO, BINARY, IAC, WILL, BINARY)
        call.run("r", "ready\n")
        every = bytes(range(256)) * 64
        call.send(every.replace(b"\xff", b"\xff\xff"), shows=every)
        plain.send("R", shows="ready\n")
        for sent, echoed in ((b"a\r\0b", b"a\r\0b"), (b"c\r\nd", b"c\r\0d"), (b"e\r", b"e\r"),
                             (b"\0f", b"\0f"), (b"\r", b"\r"), (b"\ng\n", b"\0g\n"), (b"\xff\xff", b"\xff")):
            self.assertEqual(plain.send(sent, shows=echoed), b"", sent)
        for offer in (WILL, ECHO), (WILL, SGA), (WILL, BINARY), (DO, BINARY), (DO, NAWS), (DO, TTYPE):
            self.assertIn(bytes([IAC, *offer]), plain.all)

    def testWhoDoesNotReadStopsHimself(self):
        self.board("LINES=1000", env={"BBSDISP": "nullcon", **LEAN})
        soft, hard = resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE)
        self.assertTrue(soft >= 2064 or 0 <= hard < 2064, (soft, hard))
        call, other, typist = self.call(), self.call(), self.call()
        call.run("y", "on and on")
        yes = children(self.commands()[0])[0]
        # The board asks to be told of room for him alone, and the program waits to write.
        self.eventually(lambda: self.asks(EPOLLOUT) and stat(yes)[0] == "S", "the program was never stopped")
        memory = self.resident()
        typist.run("f", "For ever")
        typist.socket.setblocking(False)
        with self.assertRaises(BlockingIOError, msg="all was taken from one whose program does not read"):
            for _ in range(1000):
                typist.socket.send(b"x" * 65536)
        other.run("c", "No such file or directory\r\n")
        for i in range(100):
            other.send(f"{i}\n", shows=f"{i}\r\n{i}\r\n")
        self.assertLess(self.resident() - memory, 1024)
        call.expect("on and on")  # and it goes on when he does
        typist.leave(1)
        call.leave(1)
        self.open_(self.idle + 2)
        self.signal(signal.SIGKILL)  # as after a crash: nothing stays, all the same
        self.eventually(lambda: not self.running(os.getpid()))

    def testHostileCallers(self):
        """The carrier is lost in every state, and behind whatever may have been sent."""
        self.board("LINES=3")
        compressed = bytes([IAC, DO, 86, IAC, SB, 86, IAC, SE]) + b"\x78\x9c" + b"\xff" * 100
        streams = [b"f", b"y", b"", bytes([IAC]), bytes([IAC, SB, NAWS]), bytes([IAC, SB, TTYPE, 0]) + b"x" * 100000,
                   bytes([IAC, DO, 200, IAC, WILL, 201]) * 20000, b"\xff\xfa\x1f\xff\xff\xff\xf0" * 1000,
                   compressed, os.urandom(200000), b"WLWL?\r" * 2000]
        silent, slow = self.call(choose=""), self.call(choose="")
        for i, stream in enumerate(streams * 2):
            with self.subTest(stream=stream[:20], reset=i % 2):
                call = self.call()
                call.expect("Your choice: ")
                with contextlib.suppress(OSError):  # it was closed on him
                    call.send(stream)
                self.eventually(lambda: stream not in (b"f", b"y") or self.running(self.commands()[0]))
                call.leave(i % 2)
                slow.send("2??????t??????????????"[i])  # a byte a minute, and what is meant with it stands
                self.quiet(2)
        refused = self.call()
        refused.send(compressed)
        refused.end()
        slow.expect("Truth has ended")
        silent.expect("Press its number.")
        daemon = self.commands()[0]
        os.kill(daemon, signal.SIGSTOP)
        for _ in range(100):  # more is asked of it than the link holds
            call = self.call()
            call.run("f", "For ever")
            call.leave(1)
            self.open_(self.idle + 2)
        os.kill(daemon, signal.SIGCONT)
        self.quiet(2)

    def testTenThousandInARow(self):
        signal.alarm(290)
        self.board(env=LEAN)
        for i in range(10000):
            if i == 200:
                self.open_(self.idle)
                before = self.resident()
            call = self.call()
            if i % 10 == 0:
                call.run("t", "Truth has ended")
            call.send("g")
            if i % 10 != 1:  # who is gone at once
                call.end()
            call.leave()
        self.quiet()
        self.assertLessEqual(self.resident(), before + 256)

    def testTimes(self):
        self.board("IDLE=0.03\nMINUTES=0.2")
        call = self.call()
        call.run("s", "Your time is over in 1 seconds.")
        daemon = self.commands()[0]
        os.kill(daemon, signal.SIGSTOP)
        call.expect("The time for it is over.")
        os.kill(children(daemon)[0], signal.SIGKILL)
        call.run("e", "Three")
        os.kill(daemon, signal.SIGCONT)  # it tells that end now, as the next program begins
        call.expect("Three has ended with exit code 3.")
        self.quiet(1)
        call.expect("Are you there? This call ends in 1 seconds.")
        call.expect("Nobody seems to be there.")
        call.end()
        call = self.call()
        call.run("f", "The time for it is over.")
        call.expect("The time of this call is over")
        call.end()

    def testNoRoomAndNoDaemon(self):
        self.board("LINES=2")
        first, second = self.call(), self.call()
        self.call(choose="").expect("All lines are busy.")
        other = self.ended(self.popen(self.file, env={"BBSCONFIG": f"{self.home}/cfg"}))
        self.assertRegex(f"{other}", r"^\(1, '', '.*harbour: another one runs in this home")
        second.leave()
        self.open_(self.idle + 1)
        fds = descriptors(self.daemon.pid)
        full = next(n for n in range(len(fds) + 1) if n not in fds)  # the lowest that is free
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (full, full + 100))
        ticks = sum(map(int, stat(self.daemon.pid)[11:13]))
        for _ in range(20):
            self.call(choose="").expect("There is no room for this call.")
        self.assertLess(sum(map(int, stat(self.daemon.pid)[11:13])) - ticks, 20, "it turned in circles")
        first.send("t", shows="No room for Truth now.")
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (full + 100, full + 100))
        first.run("t", "Truth has ended")
        self.assertEqual(slurp("harbour.log").count("No descriptor left"), 1)
        call = self.call()
        for _ in range(3):
            call.run("c", "No such file")
            os.unlink("vosterd.socket")
            dead = socket.socket(socket.AF_UNIX)  # as one of which a program that begins still has a copy
            dead.bind("vosterd.socket")
            dead.listen()
            os.kill(self.commands()[0], signal.SIGKILL)
            call.expect("The service that runs programs was lost, and Cat with it.")
        self.assertEqual(slurp("harbour.log").count("The daemon is lost: "), 3)
        call.run("c", "No such file")
        self.signal(signal.SIGTERM)
        for one in (first, call):
            one.expect("The board closes now. Goodbye.")
        self.assertEqual(self.wait(), (0, ""))
        self.assertEqual(sorted(os.listdir()), "cfg harbour.log harbour.menu pxhost.cfg stderr vosterd.log".split())
        self.eventually(lambda: not self.running(os.getpid()))

    def testStartFailures(self):
        texts = slurp(f"{BUILD}/harbour.mcv")
        spew("greeting.txt", "language English/ANSI\nmessage\ntext English/ANSI\n|a\n")
        subprocess.run([f"{BUILD}/plexmsg", "compile", "greeting.txt", "other"], check=True, stdout=subprocess.DEVNULL)
        for change, code, said in (
                ({"menu": "#"}, 1, "has no program"),
                ({"menu": None}, 1, "harbour.menu: No such"),
                ({"settings": "LINES=0"}, 1, "LINES is no number from 1 to 1000"),
                ({"settings": "IDLE=x"}, 1, "IDLE is no number"),
                ({"settings": "LISTEN=here"}, 1, "ADDRESS:PORT"),
                ({"settings": "LISTEN=127.0.0.1:99999"}, 1, "ADDRESS:PORT"),
                ({"settings": "LISTEN=192.0.2.1:0"}, 1, "cannot listen"),
                ({"pxhost_cfg": None}, -3, "CANNOT FIND"),
                ({"pxhost_cfg": LANGUAGES.replace("ANSI", "RIP")}, 1, "first language"),
                ({"env": {"MCVPATH": self.home}}, -3, "harbour.mcv"),
                ({"harbour_mcv": texts[1000:]}, -3, "harbour.mcv"),
                ({"harbour_mcv": slurp("other")}, 1, "another version"),
                ({"args": ["more"]}, 2, "unknown argument")):
            with self.subTest(said=said), contextlib.suppress(FileNotFoundError):
                self.board(ready=False, **{**change, "env": {"BBSLOG": "stdout", **change.get("env", {})}})
                got = self.wait()
                self.assertTrue(got[0] == code and said in got[1], got)
                self.eventually(lambda: not self.running(os.getpid()))
                os.unlink("harbour.mcv")


if __name__ == "__main__":
    blackbox.main()
