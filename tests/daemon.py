"""A real daemon and everything that a host can see of it"""
import contextlib
import errno
import fcntl
import itertools
import os
import pty
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import termios
import tty

from blackbox import (ENDED, PATIENCE, RUN, DaemonSuite, Terminal, block, descriptors, protocol, readable,
                      slurp, spew, stat, status)

NOBODY = 65534


class Commands(DaemonSuite):
    def testHowTheyEnd(self):
        self.begin()
        whole = "/bin/echo " + 1014 * "x"  # fills its field without a terminator
        user = -5
        for line, text, message in (
                ('/bin/echo "a b" c', "a b c\r\n", 0),
                ('/bin/sh -c "exit 7"', "", 7 << 8),
                ('/bin/sh -c "kill -9 $$"', "", 9),
                ('/bin/sh -c "ulimit -c 0; kill -QUIT $$"', "", 3),
                ("/no/such -x", "dospwn: execv failed: (2) No such file or directory\r\n", 255 << 8),
                ("", "dospwn: Invalid cmdstg [].\r\n", 255 << 8),
                (whole, whole[10:] + "\r\n", 0)):
            with self.subTest(line):
                self.assertEqual(self.output(user, line, message), text)
            user += 1000000

    def testTerminal(self):
        self.begin()
        cat = self.run_(1, "/bin/cat")
        flags, speed = [0x2502, 5, 0x4BD, 0x823B], termios.B9600
        chars = bytes.fromhex("031c08150100010011131a00120f1716ff") + bytes(15)
        want = [*flags, speed, speed, [bytes([c]) for c in chars]]
        self.assertEqual(termios.tcgetattr(cat), want)  # already when it arrives
        self.assertEqual(cat.size(), (24, 80, 100, 100))
        # And as people see it: ^A ends the input, ^C interrupts. What is typed before the command has opened its
        # terminal counts, by these settings.
        cat.type("hi\n\x01", "hi\r\nhi\r\n")
        self.assertEqual(self.over(cat, 1, ENDED, 0), "")
        cat = self.run_(2, "/bin/cat")
        cat.size(50, 132, 0, 0)  # nor is a new size undone
        cat.type("x\n", "x\r\nx\r\n")
        self.assertEqual((termios.tcgetattr(cat), cat.size()), (want, (50, 132, 0, 0)))
        cat.type("\x03", "^C")
        self.assertEqual(self.over(cat, 2, ENDED, signal.SIGINT), "")

    def testTerminalLikeStandardInput(self):
        master, slave = pty.openpty()
        tty.setraw(slave)
        like = termios.tcgetattr(slave)
        like[1], like[6][termios.VINTR] = termios.OPOST | termios.ONLCR, b"\x55"
        termios.tcsetattr(slave, termios.TCSANOW, like)
        Terminal(os.dup(master)).size(50, 132, 7, 8)
        self.begin(env={"BBSSTDIN": ""}, stdin=slave)  # an empty value counts
        cat = self.run_(1, "/bin/cat")
        self.assertEqual((termios.tcgetattr(cat), cat.size()), (termios.tcgetattr(slave), (50, 132, 7, 8)))
        self.finish()
        self.begin(cfg="BBSSTDIN=1\n")  # which is no terminal
        cat = self.run_(1, "/bin/cat")
        flags = termios.tcgetattr(cat)
        self.assertEqual((flags[:2], flags[3], cat.size()), ([0, 0], 0, (0, 0, 0, 0)))
        why = "Inappropriate ioctl for device\n"
        self.finish(err=f"tcgetattr: {why}ioctl(TIOCGWINSZ): {why}")

    def clean(self, user):
        """A command has its terminal, a session of its own, no signal blocked or ignored, and nothing else"""
        cat = self.run_(user, "/bin/cat")
        cat.type("x\n", "x\r\nx\r\n")
        pid = self.commands()[-1]
        self.assertEqual(descriptors(pid), dict.fromkeys(range(3), cat.path()))
        self.assertEqual(stat(pid)[2:6], [str(n) for n in (pid, pid, os.stat(cat.path()).st_rdev, pid)])
        self.assertEqual([int(status(pid, f"Sig{what}"), 16) for what in ("Blk", "Ign", "Cgt")], [0, 0, 0])
        cat.type("\x01")
        self.assertEqual(self.over(cat, user, ENDED, 0), "")

    def testInheritTheirTerminalOnly(self):
        def ignore():  # but SIGPIPE, what was ignored before the daemon started is not for commands
            for signo in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
                signal.signal(signo, signal.SIG_IGN)
            os.umask(0o027)
        self.begin("-d", env={"BBSLOG": "file", "MINE": "kept"}, setup=ignore)
        other = self.run_(1, "/bin/cat")  # somebody else's master must not be there either
        self.clean(2)
        self.assertEqual(self.output(3, '/bin/sh -c "pwd; echo $MINE; umask"'), f"{self.home}\r\nkept\r\n0027\r\n")
        other.close()

    def testStandardDescriptorsMayBeMissing(self):
        for closed, log in itertools.product(((0,), (1,), (2,), (0, 1), (0, 1, 2)), ("file", "stderr")):
            with self.subTest(closed, log=log):
                ways = " ".join(("<&-", ">&-", "2>&-")[fd] for fd in closed)
                self.begin("-c", f"exec {self.file} -d {ways}", file="/bin/sh", env={"BBSLOG": log})
                self.clean(1)
                self.open_(6 + (log == "file"))
                self.assertEqual({descriptors(self.daemon.pid)[fd] for fd in closed}, {"/dev/null"})
                self.signal(signal.SIGTERM)
                self.assertEqual(self.wait()[0], 115)

    def testALogThatNobodyReads(self):
        """At whichever line of a launch it is full: daemon and command can be ended"""
        for room in range(0, 160, 20):
            with self.subTest(room):
                reader, writer = os.pipe()
                fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
                self.begin("-d", env={"BBSLOG": "stderr"}, stderr=writer)
                os.close(writer)
                spew(f"/proc/self/fd/{reader}", (4096 - room) * "x")
                self.host.request(RUN, 1, b"/bin/cat")
                self.eventually(lambda: "pipe" in slurp(f"/proc/{self.daemon.pid}/wchan"))
                self.signal(signal.SIGTERM)
                self.assertEqual(self.wait()[0], 115)
                self.noneleft()
                os.close(reader)
        reader, writer = os.pipe()
        self.begin("-d", env={"BBSLOG": "stderr"}, stderr=writer)
        os.close(reader)
        os.close(writer)
        self.clean(1)  # its SIGPIPE is not the commands'

    def testSetUserId(self):
        if os.getuid() != 0 or os.statvfs(".").f_flag & os.ST_NOSUID:
            self.skipTest("only root can make such a program, and not everywhere")
        shutil.copy(self.file, "suid")
        os.chmod("suid", 0o4755)
        os.chown(".", NOBODY, NOBODY)
        # A sanitizer cannot look for leaks in a program that may not be looked into.
        self.begin(file="./suid", user=NOBODY, group=NOBODY, extra_groups=[], env={"ASAN_OPTIONS": "detect_leaks=0"})
        for user in (1, 2):
            cat = self.run_(user, "/bin/cat")
            cat.type("x\n", "x\r\nx\r\n")
            self.assertEqual(os.stat(cat.path()).st_uid, NOBODY)
            self.assertEqual(status(self.daemon.pid, "Uid").split(), [f"{NOBODY}", f"{NOBODY}", "0", f"{NOBODY}"])
            self.assertEqual(status(self.commands()[-1], "Uid").split(), 4 * [f"{NOBODY}"])

    def testTenThousandInARow(self):
        signal.alarm(290)
        # A sanitizer keeps what was freed; then it would look like growth.
        self.begin(env={"ASAN_OPTIONS": "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"})
        for i in range(10000):
            if i == 100:
                before = int(status(self.daemon.pid, "VmRSS").split()[0])
            self.run_(i, "/bin/true").close()
            self.record(i, ENDED, 0)
        self.eventually(lambda: not self.commands())
        self.open_(6)  # three standard ones, lock, endpoint, link
        self.assertLessEqual(int(status(self.daemon.pid, "VmRSS").split()[0]), before + 128)


class Kills(DaemonSuite):
    def testRules(self):
        self.begin()
        self.kill(1)  # nobody's: nothing happens
        first = self.run_(1, "/bin/sh -c \"trap 'exit 5' TERM; echo up; while :; do read x; done\"")
        first.type("", "up\r\n")
        second = self.run_(1, "/bin/cat")
        self.kill(1)  # the most recent, of whose end nothing is told
        self.assertEqual(self.over(second), "")
        self.eventually(lambda: len(self.commands()) == 1)
        first.type("\n", "\r\n")  # it still runs
        # SIGTERM goes to the process alone: the child that it waits for stays.
        third = self.run_(2, "/bin/sh -c \"trap '' HUP; sleep 1000 & echo $!; wait\"")
        grandchild = int(third.expect("\r\n"))
        self.kill(2)
        self.eventually(lambda: len(self.commands()) == 1)
        self.eventually(lambda: stat(grandchild)[0] == "S", lambda: f"{stat(grandchild)}")
        os.kill(grandchild, signal.SIGKILL)
        self.kill(1)
        self.assertEqual(self.over(first), "")
        self.assertEqual(self.output(9, "/bin/echo x"), "x\r\n")  # no notice of the killed came in between

    def testThatOvertakesItsCommand(self):
        # SIGTERM may reach the new process before it executes its command.
        self.begin()
        bystander = self.run_(1, "/bin/cat")
        for _ in range(300):
            self.host.request(RUN, 2, b"/bin/sleep 1000")
            self.kill(2)
            self.started(2).close()
        # Merged signals leave some of them unreaped, but none of them running.
        self.eventually(lambda: len(self.running()) == 1)
        bystander.type("x\n", "x\r\nx\r\n")


class Link(DaemonSuite):
    def testTheDocumentsExample(self):
        if sys.byteorder != "little":
            self.skipTest("the example is of a little-endian machine")
        self.begin()
        link, request, masters = self.host.link, b"", []
        for line in block("hex").splitlines():
            mark, _, rest = line.partition(" ")
            pieces = [piece.partition("*") for piece in rest.split()] if mark != "#" else []
            data = b"".join(int(n or 1) * bytes.fromhex(byte) for byte, _, n in pieces if byte != "+")
            if line.endswith(" +"):
                byte, fds, _, _ = socket.recv_fds(link, 2, 2)  # room for more than is to come
                self.assertEqual((byte, len(fds)), (data, 1), line)
                masters += map(Terminal, fds)
            elif mark == "<":
                self.assertEqual(link.recv(12, socket.MSG_WAITALL), data, line)
            elif mark == ">":
                request += data
                if len(request) == 1032:
                    link.send(request)
                    request = b""
            elif line.endswith("open nothing any more"):
                masters[-1].drain()  # what was sent before has been read
                resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (6, 64))  # it has 0 to 5
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (64, 64))  # a sanitizer's report opens files
        link.shutdown(socket.SHUT_WR)
        self.assertEqual((link.recv(12), request, len(masters)), (b"", b"", 3))
        why = os.strerror(errno.EMFILE)
        self.finish(err=f"ptym_open:open: {why}\npty_fork:ptym_open: {why}\n")

    def testTheDocumentsHost(self):
        spew("host.py", block("python"))
        for line, code, shown in (('/bin/echo "two words" a\\"b', 0, '1| two words a"b\n1: exit code 0\n'),
                                  ('/bin/sh -c "kill -9 $$"', 1, "1: signal 9\n")):
            self.start()
            done = self.popen(sys.executable, "host.py", self.home, line, stderr=subprocess.STDOUT)
            self.assertEqual((done.communicate(timeout=PATIENCE)[0].decode(), done.returncode), (shown, code))
            self.assertEqual(self.wait(), (0, ""))

    def testOneReapForEachSignal(self):
        self.begin()
        both = [self.run_(user, f'/bin/sh -c "read x; exit {user}"') for user in (1, 2)]
        self.endtogether(both, "\n")
        # Their signals merged: one is told now, the other with the next command's end, and so on.
        told = [self.host.record()]
        for user in (3, 4):
            self.run_(user, "/bin/true").close()
            told.append(self.host.record())
        self.assertEqual(len(self.commands()), 1)
        self.assertEqual(sorted(told), [(1, ENDED, 256), (2, ENDED, 512), (3, ENDED, 0)])

    def testAllReapsForOneSignal(self):
        many, most = range(1000), resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        self.begin(env={"BBSREAP": "ALL"})
        cats = [self.run_(user, "/bin/cat") for user in many]
        for user, cat in enumerate(cats):
            cat.type(f"{user}\n", f"{user}\r\n{user}\r\n")
        self.endtogether(cats, "\x01")
        self.assertEqual(sorted(self.host.record() for _ in cats), [(user, ENDED, 0) for user in many])
        self.assertEqual(self.commands(), [])

    def stranger(self):
        """What becomes of the connection of one who may not be the host"""
        program = "import socket; s = socket.socket(socket.AF_UNIX); s.connect('vosterd.socket'); print(s.recv(9))"
        who = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.getuid() == 0 else {}
        return self.ended(self.popen(sys.executable, "-c", program, **who))[1]

    def testOnlyTheNamedUserIsTheHost(self):
        os.chmod(".", 0o755)
        self.start(env={"BBSHOST": "daemon"})  # neither this user nor the stranger that root has
        self.eventually(lambda: os.path.exists("vosterd.socket"))
        for _ in range(3):
            self.assertEqual(self.stranger(), "b''\n")
        if os.getuid() == 0:  # who may always be
            self.host = protocol.Host(self.home)
            self.assertEqual(self.output(1, "/bin/echo a"), "a\r\n")
            self.finish()
        else:
            self.signal(signal.SIGTERM)
            self.assertEqual(self.wait()[0], 115)
        self.start(env={"BBSHOST": "nobody of that name"})
        self.assertEqual(self.wait(), (1, "BBSHOST names no user.\n"))

    def testTheHostCloses(self):
        self.begin()
        for name in "ab":
            script = f"trap 'echo bye > {name}; exit' TERM; trap '' HUP; echo up; while :; do read x; done"
            self.run_(1, f'/bin/sh -c "{script}"').type("", "up\r\n")  # and its master is closed
        self.finish()
        self.assertEqual(slurp("a") + slurp("b"), "bye\nbye\n")
        self.begin()
        self.host.request(RUN, 1, b"/bin/true")
        self.assertTrue(readable(self.host))
        self.finish()  # with the answer unread

    def testSignalsEndIt(self):
        for signo in (signal.SIGTERM, signal.SIGINT):
            self.begin()
            cat = self.run_(1, "/bin/cat")
            self.signal(signo)
            self.assertEqual(self.over(cat), "")
            self.assertEqual(self.host.link.recv(12), b"")
            self.finish(100 + signo)
        self.start()  # also while it waits for its host
        self.eventually(lambda: os.path.exists("vosterd.socket"))
        self.signal(signal.SIGTERM)
        self.finish(115)

    def testAHostThatDoesNotRead(self):
        self.begin()
        cat = self.run_(1, "/bin/cat")
        self.host.link.setblocking(False)

        def stuck():  # it sleeps, and not because there is no request
            with contextlib.suppress(BlockingIOError):
                while True:
                    self.host.request(RUN, 2, b"/bin/true")
            return stat(self.daemon.pid)[0] == "S"
        self.eventually(stuck)
        self.signal(signal.SIGTERM)
        self.assertEqual(self.over(cat), "")
        self.finish(115)
        self.begin()  # and one that sends half a record
        self.output(1, "/bin/true")  # so that reads have been interrupted before
        self.host.link.send(b"short")
        self.assertEqual(self.host.link.recv(12), b"")
        self.finish(150)

    def testLateOpeners(self):
        self.begin()
        late = []
        for _ in range(6):
            late.append(socket.socket(socket.AF_UNIX))
            late[-1].setblocking(False)  # a full queue would say so at once
            late[-1].connect("vosterd.socket")
            late[-1].send(protocol.REQUEST.pack(1, RUN, b"/bin/true"))
        self.assertEqual(self.output(2, "/bin/echo x"), "x\r\n")
        self.assertFalse(any(readable(link, 0) for link in late))
        self.assertEqual(os.stat("vosterd.socket").st_mode & 0o777, 0o666)

    def testFilesOfAnother(self):
        self.begin()
        second = self.popen(self.file, env={"BBSCONFIG": f"{self.home}/cfg"})
        self.assertEqual(self.ended(second), (
            1, "", "fcntl: 11 (Resource temporarily unavailable)\nhalvrond is already running.\n"))
        self.assertEqual(slurp("vosterd.pid"), f"{self.daemon.pid:6}\n")
        self.assertEqual(self.output(2, "/bin/echo x"), "x\r\n")
        self.signal(signal.SIGKILL)
        self.assertEqual(self.wait()[0], -9)
        self.assertTrue(os.path.exists("vosterd.pid") and os.path.exists("vosterd.socket"))
        self.begin()  # what is left behind does not matter
        self.assertEqual(self.output(1, "/bin/echo x"), "x\r\n")

    def testStartFailures(self):
        spew("bad.cfg", "HOME=/no/such\n")
        for config, obstacle, err in (
                ("/no/such", None, "Unable to open plexhost.cfg!\n"),
                ("bad.cfg", None, "Unable to change to BBS home directory: /no/such (No such file or directory)\n"),
                ("cfg", "vosterd.pid", "maklck:open: 21 (Is a directory)\nhalvrond is already running.\n"),
                ("cfg", "vosterd.socket", "creat: Address already in use\nUnable to create listen socket.\n")):
            if obstacle:
                os.mkdir(obstacle)
            self.start(env={"BBSCONFIG": config})
            self.assertEqual(self.wait(), (1, err))
            if obstacle:
                os.rmdir(obstacle)


class Log(DaemonSuite):
    def testTellsWhatHappens(self):
        self.begin("-d", "5", env={"BBSLOG": "file"})
        self.host.request(7, 1)  # unknown: ignored without an answer
        self.output(4, '/bin/sh -c "exit 3"', 3 << 8)
        # Whether there is a core image is the system's business; the signal is told without its mark.
        core = '/bin/sh -c "ulimit -c 9999; kill -QUIT $$"'
        self.host.request(RUN, 6, core.encode())
        terminal = self.started(6)
        terminal.drain()
        user, kind, message = self.host.record()
        self.assertEqual((user, kind, message & 0x7F), (6, ENDED, 3))
        cat = self.run_(5, "/bin/cat")
        self.kill(5)
        self.eventually(lambda: not self.commands())
        self.finish()
        cat.close()
        # Without the numbers that differ from run to run, what the privilege switches say, and the success of a
        # launch, which the command's end may overtake.
        log = re.sub("(pid=|fd=|/dev/pts/)[0-9]+", r"\1N", slurp("vosterd.log"))
        log = re.sub("(getpriv|relpriv): uid=[0-9]+ euid=[0-9]+\n", "", log)
        self.assertEqual(log.count("COMMAND SUCCESSFUL: ptymfd=N\n"), 3, log)
        self.assertEqual(log.replace("COMMAND SUCCESSFUL: ptymfd=N\n", ""), f"""\
Unknown message type: 7
Running [/bin/sh -c "exit 3"] for 4
Adding Child: pid=N usrnum=4 [/dev/pts/N]
Received SIGCHLD.
pid=N usrnum=4 status=300
Normal exit. Exit 3.
Running [{core}] for 6
Adding Child: pid=N usrnum=6 [/dev/pts/N]
Received SIGCHLD.
pid=N usrnum=6 status={message:x}
Signal exit. Signal 3.
Running [/bin/cat] for 5
Adding Child: pid=N usrnum=5 [/dev/pts/N]
BBS request to kill 5
Received SIGCHLD.
Could not find child (pid=N)
""")

    def testLevels(self):
        for args, log, logs in (((), "file", False), (("-d",), "file", True), (("-D",), "file", True),
                                (("-d", "0"), "file", False), (("x", "4"), "file", True), (("x",), "file", False),
                                (("-d",), None, False)):  # and no log at all unless it is asked for
            with self.subTest(args, log=log):
                spew("vosterd.log", "")
                self.begin(*args, env={"BBSLOG": log})
                self.assertEqual(self.output(1, "/bin/true"), "")
                self.finish()
                self.assertEqual("Running [" in slurp("vosterd.log"), logs)

    def testSignalsWithoutAnEnd(self):
        self.begin("-d", env={"BBSLOG": "file"})

        def logged(text):
            self.eventually(lambda: text in slurp("vosterd.log"), lambda: slurp("vosterd.log"))
        self.signal(signal.SIGCHLD)
        logged("Received SIGCHLD.\nwait: No child processes")
        cat = self.run_(1, "/bin/cat")
        cat.type("x\n", "x\r\nx\r\n")  # it runs, and a hang-up will end it
        os.kill(self.commands()[0], signal.SIGSTOP)  # a stop is no end
        logged("Received SIGCHLD.\nCould not find child (pid=0)\n")
        self.assertEqual(self.output(2, "/bin/echo x"), "x\r\n")
        cat.close()
