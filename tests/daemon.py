"""A real daemon and everything that a host can see of it; daemons whose system calls fail"""
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
import sys
import termios
import tty

from blackbox import (BUILD, ENDED, FAILED, KILL, RUN, STARTED, DaemonSuite, Terminal, block, descriptors, protocol,
                      readable, slurp, spew, stat, status)

NOBODY = 65534
INLOG = {"BBSLOG": "file"}


class Commands(DaemonSuite):
    def testHowTheyEnd(self):
        """And what the log tells of it"""
        self.begin("-d", "5", env=INLOG)
        self.host.request(7, 1)  # unknown: ignored without an answer
        log, user = "Unknown message type: 7\n", -5
        whole = "/bin/echo " + 1014 * "x"  # fills its field without a terminator
        for line, text, message, how in (
                ('/bin/echo "a b" c', "a b c\r\n", 0, "Normal exit. Exit 0."),
                ('/bin/sh -c "exit 7"', "", 7 << 8, "Normal exit. Exit 7."),
                ('/bin/sh -c "kill -9 $$"', "", 9, "Signal exit. Signal 9."),
                # Whether there is a core image is the system's business; the signal is told without its mark.
                ('/bin/sh -c "ulimit -c 9999; kill -QUIT $$"', None, 3, "Signal exit. Signal 3."),
                ("/no/such -x", "dospwn: execv failed: (2) No such file or directory\r\n", 255 << 8,
                 "Normal exit. Exit 255."),
                ("", "dospwn: Invalid cmdstg [].\r\n", 255 << 8, "Normal exit. Exit 255."),
                (whole, whole[10:] + "\r\n", 0, "Normal exit. Exit 0.")):
            with self.subTest(line):
                shown = self.over(self.run_(user, line))
                self.assertEqual(shown, shown if text is None else text)
                told = self.host.record()
                self.assertEqual((told[0], told[1], told[2] & ~0x80), (user, ENDED, message))
                log += (f"Running [{line}] for {user}\nAdding Child: pid=N usrnum={user} [/dev/pts/N]\n"
                        f"Received SIGCHLD.\npid=N usrnum={user} status={told[2]:x}\n{how}\n")
            user += 1000000
        self.run_(5, "/bin/cat")
        self.host.request(KILL, 5)
        self.eventually(lambda: not self.commands())
        self.signal(signal.SIGCHLD)  # of nobody
        self.eventually(lambda: slurp("vosterd.log").endswith("wait: No child processes"))
        cat = self.run_(6, "/bin/cat")
        cat.type("x\n", "x\r\nx\r\n")  # it runs, and the hang-up will end it
        os.kill(self.commands()[0], signal.SIGSTOP)  # a stop is no end
        self.eventually(lambda: slurp("vosterd.log").endswith("(pid=0)\n"))
        cat.close()
        self.finish()
        # Without the numbers that differ from run to run, what the privilege switches say, and the success of a
        # launch, which the command's end may overtake.
        got = re.sub("(pid=(?!0)|fd=|/dev/pts/)[0-9]+", r"\1N", slurp("vosterd.log"))
        got = re.sub("(getpriv|relpriv): uid=[0-9]+ euid=[0-9]+\n", "", got)
        self.assertEqual(got.count("COMMAND SUCCESSFUL: ptymfd=N\n"), 9, got)
        self.assertEqual(got.replace("COMMAND SUCCESSFUL: ptymfd=N\n", ""), log + """\
Running [/bin/cat] for 5
Adding Child: pid=N usrnum=5 [/dev/pts/N]
BBS request to kill 5
Received SIGCHLD.
Could not find child (pid=N)
Received SIGCHLD.
wait: No child processesRunning [/bin/cat] for 6
Adding Child: pid=N usrnum=6 [/dev/pts/N]
Received SIGCHLD.
Could not find child (pid=0)
""")

    def testLevelsOfTheLog(self):
        for args, log, logs in ((("x",), "file", False), (("-D",), "file", True), (("-d", "0"), "file", False),
                                (("x", "4"), "file", True), (("-d",), None, False)):
            spew("vosterd.log", "")
            self.begin(*args, env={"BBSLOG": log})
            self.output(1, "/bin/true")
            self.finish()
            self.assertEqual("Running [" in slurp("vosterd.log"), logs, (args, log))

    def testTerminal(self):
        self.begin()
        cat = self.run_(1, "/bin/cat")
        flags, speed = [0x2502, 5, 0x4BD, 0x823B], termios.B9600
        chars = bytes.fromhex("031c08150100010011131a00120f1716ff") + bytes(15)
        want = [*flags, speed, speed, [bytes([c]) for c in chars]]
        self.assertEqual((termios.tcgetattr(cat), cat.size()), (want, (24, 80, 100, 100)))  # already when it arrives
        # What is typed or set before the command has opened its terminal counts.
        cat.size(50, 132, 0, 0)
        cat.type("x\n", "x\r\nx\r\n")
        self.assertEqual((termios.tcgetattr(cat), cat.size()), (want, (50, 132, 0, 0)))
        cat.type("\x03", "^C")
        self.assertEqual(self.over(cat, 1, ENDED, signal.SIGINT), "")
        self.finish()
        # Like standard input
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
        reader, writer = os.pipe()
        os.close(reader)  # nobody reads its log; the SIGPIPE is not the commands'
        self.begin("-d", env={"BBSLOG": "stderr", "MINE": "kept"}, setup=ignore, stderr=writer)
        os.close(writer)
        with self.run_(1, "/bin/cat"):  # somebody else's master must not be there either
            self.clean(2)
        self.assertEqual(self.output(3, '/bin/sh -c "pwd; echo $MINE; umask"'), f"{self.home}\r\nkept\r\n0027\r\n")
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
            reader, writer = os.pipe()
            fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
            self.begin("-d", env={"BBSLOG": "stderr"}, stderr=writer)
            os.write(writer, (4096 - room) * b"x")
            os.close(writer)
            self.host.request(RUN, 1, b"/bin/cat")
            self.eventually(lambda: "pipe" in slurp(f"/proc/{self.daemon.pid}/wchan"))
            self.signal(signal.SIGTERM)
            self.assertEqual(self.wait()[0], 115)
            self.eventually(lambda: not self.running(os.getpid()))
            os.close(reader)

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

    def testKills(self):
        self.begin()
        # SIGTERM goes to the process alone: the child that it waits for stays.
        sleeper = int(self.run_(1, "/bin/sh -c \"trap '' HUP; sleep 1000 & echo $!; wait\"").expect("\r\n"))
        self.host.request(KILL, 1)
        self.eventually(lambda: not self.commands())
        self.eventually(lambda: stat(sleeper)[0] == "S", lambda: f"{stat(sleeper)}")
        os.kill(sleeper, signal.SIGKILL)
        bystander = self.run_(2, "/bin/cat")  # no notice of the killed came in between
        for _ in range(300):  # SIGTERM may reach the new process before it executes its command
            self.host.request(RUN, 3, b"/bin/sleep 1000")
            self.host.request(KILL, 3)
            self.assertEqual(self.host.record(), (3, STARTED, 0))
            os.close(self.host.master())
        # Merged signals leave some of them unreaped, but none of them running.
        self.eventually(lambda: len(self.running()) == 1)
        bystander.type("x\n", "x\r\nx\r\n")


class Link(DaemonSuite):
    def testTheDocumentsExample(self):
        if sys.byteorder != "little":
            self.skipTest("the example is of a little-endian machine")
        self.begin()
        masters = []

        def data(lines):
            pieces = re.findall(r"\b(\w\w)(?:\*(\d+))?", lines)
            return b"".join(int(times or 1) * bytes.fromhex(byte) for byte, times in pieces)
        for title, sent, answer in re.findall(r"# (.*)\n((?:> .*\n)+)((?:< .*\n)*)", block("hex")):
            if title.endswith("open nothing any more"):
                masters[-1].drain()  # what was sent before has been read
                resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (6, 64))  # it has 0 to 5
            self.host.link.send(data(sent))
            heard, came = self.hear(len(data(answer)))
            self.assertEqual((heard, len(came)), (data(answer), answer.count("+")), title)
            masters += came
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (64, 64))  # a sanitizer's report opens files
        self.host.link.shutdown(socket.SHUT_WR)
        self.assertEqual((self.host.link.recv(12), len(masters)), (b"", 3))
        why = os.strerror(errno.EMFILE)
        self.finish(err=f"ptym_open:open: {why}\npty_fork:ptym_open: {why}\n")

    def testTheDocumentsHost(self):
        spew("host.py", block("python"))
        for line, code, shown in (('/bin/echo "two words" a\\"b', 0, '1| two words a"b\n1: exit code 0\n'),
                                  ('/bin/sh -c "kill -9 $$"', 1, "1: signal 9\n")):
            self.start()
            self.assertEqual(self.ended(self.popen(sys.executable, "host.py", self.home, line)), (code, shown, ""))
            self.assertEqual(self.wait(), (0, ""))

    def testAllReapsForOneSignal(self):
        many, most = range(1000), resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        # A sanitizer keeps what was freed; then it would look like growth.
        self.begin(env={"BBSREAP": "ALL", "ASAN_OPTIONS": "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"})
        sizes = []
        for _ in range(2):
            cats = [self.run_(user, "/bin/cat") for user in many]
            for user, cat in enumerate(cats):
                cat.type(f"{user}\n", f"{user}\r\n{user}\r\n")
            self.endtogether(cats, "\x01")
            self.assertEqual(sorted(self.host.record() for _ in cats), [(user, ENDED, 0) for user in many])
            self.assertEqual(self.commands(), [])
            sizes.append(int(re.search(r"Rss: +(\d+)", slurp(f"/proc/{self.daemon.pid}/smaps_rollup"))[1]))
        self.open_(6)  # three standard ones, lock, endpoint, link
        self.assertLess(sizes[1], sizes[0] + 24)  # kB, less than a thousand records of the table

    def testOnlyTheNamedUserIsTheHost(self):
        os.chmod(".", 0o755)
        program = "import socket; s = socket.socket(socket.AF_UNIX); s.connect('vosterd.socket'); print(s.recv(9))"
        who = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.getuid() == 0 else {}
        for name in "root", "daemon":  # neither is this user, nor the stranger that root has
            env = {"BBSHOST": name}
            self.start(env=env)
            self.eventually(lambda: os.path.exists("vosterd.socket"))
            for _ in range(3):
                self.assertEqual(self.ended(self.popen(sys.executable, "-c", program, **who))[1], "b''\n")
            self.signal(signal.SIGTERM)  # also while it waits for its host
            self.assertEqual((self.wait(), sorted(os.listdir())), ((115, ""), ["cfg", "stderr"]))
        if os.getuid() == 0:  # who may always be
            self.begin(env=env)
            self.assertEqual(self.output(1, "/bin/echo a"), "a\r\n")

    def testFilesOfAnother(self):
        self.begin()
        second = self.popen(self.file, env={"BBSCONFIG": f"{self.home}/cfg"})
        self.assertEqual(self.ended(second), (
            1, "", "fcntl: 11 (Resource temporarily unavailable)\nhalvrond is already running.\n"))
        self.assertEqual(slurp("vosterd.pid"), f"{self.daemon.pid:6}\n")
        self.assertEqual(os.stat("vosterd.socket").st_mode & 0o777, 0o666)
        self.signal(signal.SIGKILL)
        self.assertEqual(self.wait()[0], -9)
        self.begin()  # what is left behind does not matter
        self.assertEqual(self.output(1, "/bin/echo x"), "x\r\n")


class Faults(DaemonSuite):
    file = f"{BUILD}/tests/vosterd_faults"

    def plan(self, faults, **env):
        self.begin("-d", env=INLOG | {"FAULTS": faults} | env)

    def testAtStart(self):
        endpoint, already = "Unable to create listen socket.\n", "halvrond is already running.\n"
        spew("bad.cfg", "HOME=/no/such\n")
        for what, code, said in (
                ("BBSCONFIG=bad.cfg", 1,
                 "Unable to change to BBS home directory: /no/such (No such file or directory)\n"),
                ("OBSTACLE=vosterd.pid", 1, "maklck:open: 21 (Is a directory)\n" + already),
                ("OBSTACLE=vosterd.socket", 1, "creat: Address already in use\n" + endpoint),
                ("BBSHOST=no such name", 1, "BBSHOST names no user.\n"),
                ("FAULTS=fcntl:1:37", 1, "fcntl: 37 (No locks available)\n" + already),
                ("FAULTS=sigaction:2:22", 3, "Unable to install SIGCHLD handler.\n"),
                ("FAULTS=sigaction:3:22", 4, "Unable to install SIGTERM handler.\n"),
                ("FAULTS=sigaction:4:22", 5, "Unable to install SIGINT handler.\n"),
                ("FAULTS=fchmod:1:1", 1, "creat: Operation not permitted\n" + endpoint),
                ("FAULTS=listen:1:95", 1, "fattach: Operation not supported\n" + endpoint),
                ("FAULTS=accept:1:4", 2,
                 "Unable to accept connection from client.\nI_RECVFD: Interrupted system call (4)\n")):
            with self.subTest(what):
                name, value = what.split("=")
                if name == "OBSTACLE":
                    os.mkdir(value)
                self.start("-d", env=INLOG | {"BBSHOST": "root", name: value})
                self.assertEqual(self.wait()[0], code)
                self.assertEqual(slurp("stderr") + slurp("vosterd.log"), said)
                self.assertEqual(os.path.exists("vosterd.pid"), name != "BBSCONFIG")  # only an end in order removes it
                if name == "OBSTACLE":
                    os.rmdir(value)
        os.unlink("vosterd.pid")
        self.plan("write:1:28")  # a lock without an id in its file is a lock
        self.assertEqual(self.output(1, "/bin/echo x"), "x\r\n")
        self.assertEqual(slurp("vosterd.pid"), "")

    def course(self, user, line, want, text):
        """What the host hears of a command, and what stands on its terminal"""
        self.host.request(RUN, user, line.encode())
        heard, terminals = self.hear(len(want))
        self.assertEqual((heard, len(terminals)), (want, len(want) % 12))
        # A terminal that nobody ever opened does not hang up: of none but those that show something the end comes.
        for terminal in terminals:
            self.assertEqual(terminal.drain() if text else readable(terminal, 0) and terminal.more(), text or False)

    def testAtALaunch(self):
        ptym, eintr, eacces, eio = ("pty_fork:ptym_open: ", *(os.strerror(e) + "\n" for e in (4, 13, 5)))
        record = protocol.RECORD.pack
        refused = record(0, FAILED, 0)

        def told(user, code=0):
            return record(user, STARTED, 0) + b"\0" + record(user, ENDED, (code & 0xFF) << 8)
        rows = (
            # No terminal: refused, and from then on no end of a command is told, but to who hears of all.
            ("open:1:4", refused, "", f"ptym_open:open: {eintr}{ptym}{eintr}"),
            ("grantpt:1:13", refused, "", f"ptym_open:grantpt: {eacces}{ptym}{eacces}"),
            ("unlockpt:1:5", refused, "", f"ptym_open:unlockpt: {eio}{ptym}{eio}"),
            ("ptsname:1:5", refused, "", f"ptym_open:ptsname: {eio}{ptym}{eio}"),
            ("fork:1:4", refused, "", f"pty_fork:fork(): {eintr}", "COMMAND FAILED!\n"),
            # Started, but its terminal cannot be set up: it ends, and that is told.
            ("setsid:1:13", told(1, -1), "", f"pty_fork:setsid(): {eacces}"),
            ("open:2:4", told(1, -2), "", f"pty_fork:ptys_open: {eintr}"),
            # By the parent, through the master, and where that fails by the child.
            ("tcsetattr:1:5 tcsetattr:2:5", told(1, -4), "", f"pty_fork:tcsetattr: {eio}"),
            ("ioctl:1:5 ioctl:2:5", told(1, -5), "", f"pty_fork:ioctl(TIOCSWINSZ): {eio}"),
            ("tcsetattr:1:5", told(1), "x\r\n", ""),
            ("dup2:1:5", told(1, -6), "", f"pty_fork:dup2(STDIN_FILENO): {eio}"),
            ("dup2:2:5", told(1, -7), "", f"pty_fork:dup2(STDOUT_FILENO): {eio}"),
            ("dup2:3:4", told(1, -8), "", f"pty_fork:dup2(STDERR_FILENO): {eintr}"),
            # Nobody looks at these: the launch goes on.
            ("send:1:11", told(1)[12:], "x\r\n", ""),
            ("sendmsg:1:109", told(1)[:12] + told(1)[13:], "", "", "Too many references: cannot splice (109)\n"),
            ("malloc:1:12", told(1)[:13], "x\r\n", "", "Could not find child (pid="))  # not in the table
        for (faults, heard, text, err, *log), reap in itertools.product(rows, (None, "all")):
            with self.subTest(faults, reap=reap):
                self.plan(faults, BBSREAP=reap)
                deaf = heard == refused and not reap
                self.course(1, "/bin/echo x", heard, text)
                # Three standard ones, log, lock, endpoint, link; a fork that failed leaves a master.
                self.open_(7 + faults.startswith(("fork", "malloc")))
                self.eventually(lambda: deaf or not self.commands())  # signals of two ends would merge
                self.course(2, "/bin/echo on", told(2)[:13] if deaf else told(2), "on\r\n")
                self.finish(err=err)
                self.assertIn("".join(log), slurp("vosterd.log"))

    def testHowTheDaemonEnds(self):
        """Whatever ends it: its commands end by SIGTERM, its files go, its host sees the end"""
        script = "trap 'echo bye >>bye; exit' TERM; trap '' HUP; echo up; while :; do read x; done"
        for faults, end, code in (
                ("", lambda: self.host.link.shutdown(socket.SHUT_WR), 0),
                ("", lambda: self.host.link.send(b"short"), 150),
                ("", lambda: self.signal(signal.SIGTERM), 115),
                ("", lambda: self.signal(signal.SIGINT), 102),
                ("kill:1:-2", lambda: self.host.link.shutdown(socket.SHUT_WR), 0),  # half-way: nothing changes
                ("kill:1:-15", lambda: self.host.request(KILL, 2), 115),  # overtakes a kill request
                ("fcntl:2:37", lambda: self.host.link.shutdown(socket.SHUT_WR), 0),
                ("read:1:5", None, 150 + errno.EIO),
                ("read:1:104", None, 0)):  # a host that left answers unread
            with self.subTest(faults, code=code):
                self.plan(faults)
                spew("bye", "")
                users = (1, 2) if end else ()
                for user in users:
                    self.output(user, "/bin/true")  # so that reads have been interrupted
                    self.run_(user, f'/bin/sh -c "{script}"').type("", "up\r\n")  # and its master is closed
                if end:
                    end()
                self.assertEqual(self.host.link.recv(12), b"")
                stuck = "fcntl" in faults
                self.finish(code, "fcntl: 37 (No locks available)\n" if stuck else "", stuck)
                self.assertEqual(slurp("bye"), len(users) * "bye\n")

    def testOneReapForEachSignal(self):
        self.plan("kill:1:-17")
        self.endtogether([self.run_(user, f'/bin/sh -c "read x; exit {user}"') for user in (1, 2)], "\n")
        # Their signals merged: one is told now, the other with the next command's end, and so on.
        told = [self.host.record()]
        for user in (3, 4):
            self.run_(user, "/bin/true").close()
            told.append(self.host.record())
        self.assertEqual(sorted(told), [(1, ENDED, 256), (2, ENDED, 512), (3, ENDED, 0)])
        self.run_(5, "/bin/cat")
        self.host.link.shutdown(socket.SHUT_WR)
        self.assertEqual(self.host.link.recv(12), b"")  # for the last one it is too late
