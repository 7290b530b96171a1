"""plexrun from a script, between files and pipes, on a terminal; what all tools say of themselves"""
import itertools
import os
import pty
import random
import signal
import socket
import subprocess
import termios

from blackbox import BUILD, FAILED, PATIENCE, STARTED, DaemonSuite, protocol, spew

PLEXRUN = f"{BUILD}/plexrun"


class Plexrun(DaemonSuite):
    def setUp(self):
        super().setUp()
        os.mkdir("tmp")  # what plexrun makes for itself goes below, and must not stay
        self.addCleanup(self.eventually, lambda: not os.listdir("tmp"), "plexrun left something behind")

    def environment(self, more):
        return super().environment({"TMPDIR": f"{self.home}/tmp", "PATH": "/usr/local/bin:/usr/bin:/bin"} | more)

    def run_to_end(self, *args, text="", **more):
        """A program's status, output and errors; its input is a file"""
        spew("input", text)
        with open("input", encoding="ascii") as file:
            return self.ended(self.popen(*args, **{"stdin": file} | more))

    def plexrun(self, *args, **more):
        return self.run_to_end(PLEXRUN, *args, **more)

    def testStatuses(self):
        spew("odd", "\x01\x02", 0o755)
        usage, home, long = "see plexrun --help", self.home, 1025 * "x"
        nobody = "plexrun: no daemon runs in . (No such file or directory)\n"
        for args, code, said in (  # by the command, or else by plexrun
                (("--", "sh", "-c", "kill -TERM $$"), 128 + 15, ""),
                (("printf", "%s|", "", "a b", '"', '""', 'x"\n"y', "'", ' "a b" ', '" '), 0,
                 """|a b|"|""|x"\n"y|'| "a b" |" |"""),
                (("-u", "-5", "pwd"), 0, f"{home}\n"),
                (("sh", "-c", "echo $BBSCONFIG; env | grep -c PLEXRUN_"), 1, "x\n0\n"),
                ((), 120, f"plexrun: no command ({usage})\n"),
                (("-u", "3000000000"), 120, f"plexrun: -u wants a number of 32 bits, not '3000000000' ({usage})\n"),
                (("-u", "5x", "ls"), 120, f"plexrun: -u wants a number of 32 bits, not '5x' ({usage})\n"),
                (("-c",), 120, f"plexrun: -c wants an argument ({usage})\n"),
                (("-c", "/bin/ls", "x"), 120, f"plexrun: -c has the whole command; 'x' is too much ({usage})\n"),
                (("ls", "a\\b"), 121, "plexrun: no command line can carry the backslash in 'a\\b'\n"),
                (("-c", long), 121, "plexrun: longer than 1024 bytes\n"),
                # How long a line is depends on plexrun's own paths but with a daemon that runs.
                (("-H", ".", *49 * ["x/"]), 122, nobody),
                (("-H", ".", *50 * ["x/"]), 121, "plexrun: more than 49 words\n"),
                (("-H", ".", "/bin/echo", long[:1014]), 122, nobody),
                (("-H", ".", "/bin/echo", long[:1015]), 121, "plexrun: longer than 1024 bytes\n"),
                (("./odd",), 126, f"plexrun: cannot execute {home}/./odd: Exec format error\n"),
                (("./tmp",), 126, "plexrun: ./tmp: Permission denied\n"),
                (("none",), 127, "plexrun: none: command not found\n")):
            with self.subTest(args):
                got = self.plexrun(*args, env={"BBSCONFIG": "x"})
                self.assertEqual((got[0], got[1] + got[2]), (code, said))
        self.assertEqual(self.plexrun("ls", env={"TMPDIR": "/none"})[0], 125)
        self.assertRegex(self.plexrun("-v", "-u", "7", "true")[2], r"^reply: usrnum 7, msgtyp -1, message 0x0000\n"
                         r"descriptor: the master of /dev/pts/\d+\n"
                         r"notice: usrnum 7, msgtyp -3, message 0x0000 \(exit code 0\)\n$")

    def testAsWithoutIt(self):
        every = "".join(map(chr, range(256)))
        big = 70000 * "x" + "\n" + "".join(random.Random(7).choices(every, k=1 << 20))
        for text in ("", "a\nb\n\x1a", every, 41 * every + "\n", big):
            for command in ("cat", "sort", "tail -c 1000", "read x; cat", "head -c 5; echo err >&2; exit 3",
                            "cat >&2; kill -9 $$", "[ -t 0 ] || [ -t 1 ] || [ -t 2 ] || echo none"):
                with self.subTest(command, text=text[:20], size=len(text)):
                    code, *want = self.run_to_end("sh", "-c", command, text=text)
                    piped = self.popen(PLEXRUN, "sh", "-c", command, stdin=subprocess.PIPE)
                    filed = self.plexrun("sh", "-c", command, text=text)
                    for status, *got in (filed, self.ended(piped, text.encode("latin-1"))):
                        self.assertEqual(status, code if code >= 0 else 128 - code)
                        self.assertTrue(got == want, (got[0][:80], got[1][:80]))

    def testInScripts(self):
        for script, want in (
                ('(read x; "$0" cat; cat) <input; echo $?', "two\n0\n"),
                ('"$0" echo new >>input; cat input', "one\ntwo\nnew\n"),
                ('unset PATH; "$0" echo found', "found\n"),
                ('PATH=.:/bin "$0" tmp 2>&1; echo $?', "plexrun: tmp: Permission denied\n126\n"),  # a directory
                ('"$0" yes | head -1; echo ${PIPESTATUS[0]}', "y\n141\n"),
                ('"$0" -c /usr/bin/yes </dev/null | head -1; echo ${PIPESTATUS[0]}', "y\r\n141\n"),
                ('"$0" seq 9 >/dev/full; echo $?', "1\n"),
                ('"$0" cat <&-; echo $?', "0\n"),
                ('"$0" -c "/usr/bin/seq 9" >/dev/full; echo $?', "125\n"),
                ('printf "one\\ntwo" | "$0" -c "/usr/bin/tail -n 1"', "one\r\ntwotwo"),  # and what a terminal echoes
                ('"$0" -c /bin/cat <.; echo $?', "0\n"),  # what cannot be read is at its end
                ('"$0" -c "/usr/bin/seq 20000" </dev/null | cmp - <(seq 20000 | sed "s/$/\\r/") && echo same', "same\n"),
                ("\"$0\" sh -c 'exec <&- >&- 2>&-; sleep 0.1; exit 3'; echo $?", "3\n"),
                # What the command leaves in the background holds its terminal open, and cannot hold us.
                ("""kill -9 $("$0" -c "/bin/sh -c \\"trap '' HUP; sleep 60 & echo \\$!\\"" | tr -d '\\r'); echo $?""",
                 "0\n"),
                # What was ignored still is.
                ("(trap '' HUP; sh -c 'exec \"$0\" sh -c \"kill -HUP $$; exit 7\"' \"$0\"); echo $?", "7\n"),
                ("\"$0\" sh -c 'echo text; echo shown >/dev/tty' 2>err; cat err", "text\nshown\r\n")):
            with self.subTest(script):
                self.assertEqual(self.run_to_end("bash", "-c", script, PLEXRUN, text="one\ntwo\n")[1], want)

    def testDaemonsThatMisbehave(self):
        for kind, descriptor, code in ((None, False, 124), (FAILED, False, 123), (STARTED, False, 124),
                                       (STARTED, True, 124)):
            with self.subTest(kind, descriptor=descriptor), socket.socket(socket.AF_UNIX) as listening:
                listening.bind("vosterd.socket")
                listening.listen()
                program = self.popen(PLEXRUN, "-H", ".", "ls")
                link = listening.accept()[0]
                self.assertEqual(link.recv(1032, socket.MSG_WAITALL)[8:9], b"/")
                if kind:
                    link.send(protocol.RECORD.pack(0, kind, 0))
                if descriptor:
                    socket.send_fds(link, [b"\0"], pty.openpty()[:1])
                link.close()
                self.assertEqual(self.ended(program)[0], code)
                os.unlink("vosterd.socket")

    def testADaemonThatRuns(self):
        self.start()
        self.eventually(lambda: os.path.exists("vosterd.socket"))
        first = self.popen(PLEXRUN, "-H", "..", "sh", "-c", "pwd; sleep 1000", cwd="tmp")
        self.assertEqual(first.stdout.readline(), f"{self.home}\r\n".encode())
        self.assertEqual(self.plexrun("-H", ".", "ls")[0], 122)
        first.send_signal(signal.SIGTERM)
        self.assertEqual(first.wait(PATIENCE), -signal.SIGTERM)
        self.assertEqual(self.wait(), (0, ""))

    def testWhatToolsSayOfThemselves(self):
        tools = ("plexrun", "plexmsg", "conshow", *("plexview",) * os.path.exists(f"{BUILD}/plexview"))
        usage = "^usage: {} "
        for tool, (option, answer) in itertools.product(tools, (
                ("--help", usage), ("-h", usage), ("--version", r"^{} \(vosterd\) \d+\.\d+\.\d+\n$"),
                ("-Z", ""), ("--no", ""), ("--help=x", ""))):
            with self.subTest(tool, option=option):
                want = answer or f"^{{}}: unknown option '{option}' "
                code, out, err = self.run_to_end(f"{BUILD}/{tool}", option)
                self.assertEqual(code, 0 if answer else 120 if tool == "plexrun" else 2)
                self.assertRegex(out if answer else err, want.format(tool))
                self.assertEqual(err if answer else out, "")
        full = self.run_to_end("sh", "-c", f"{PLEXRUN} --help >/dev/full")
        self.assertEqual(full, (1, "", "plexrun: standard output: No space left on device\n"))

    def strange(self, script):
        """On a terminal whose settings no program would choose"""
        self.pid, self.terminal = self.onterminal(f"stty erase '#' eof '^X' rows 30 cols 100; {script}")
        self.slave = os.open(self.terminal.path(), os.O_RDWR | os.O_NOCTTY)  # keeps it alive

    def raw(self):
        flags = termios.tcgetattr(self.terminal)
        return not flags[1] & termios.OPOST and not flags[3] & (termios.ICANON | termios.ECHO | termios.ISIG)

    def back(self):
        """The wait status; the settings must be given back"""
        self.eventually(lambda: os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT))
        flags = termios.tcgetattr(self.slave)
        self.assertTrue(flags[1] & termios.OPOST and flags[3] & termios.ICANON, flags)
        self.assertEqual(flags[6][termios.VERASE], b"#")
        return os.waitpid(self.pid, 0)[1]

    def testSizeKeysAndEveryWayOut(self):
        for signo in (0, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGUSR1):
            with self.subTest(signo):
                self.strange(f"exec {PLEXRUN} sh -c \"stty size; stty -a | grep -o 'eof = ^X'; trap 'stty size' WINCH;"
                             " trap 'echo key' INT; echo ready; while :; do read x && exit 4; done\"")
                self.assertIn("30 100\r\neof = ^X\r\n", self.terminal.expect("ready\r\n"))
                self.eventually(self.raw)
                self.terminal.size(40, 90, 0, 0)
                self.terminal.type("", "40 90\r\n")
                if signo:
                    os.kill(self.pid, signo)
                else:
                    self.terminal.type("\x03")
                    self.terminal.expect("key\r\n")
                    self.terminal.type("x\n")
                self.assertEqual(self.back() & 0xFF7F, signo or 4 << 8)

    def testStopsAndContinues(self):
        spew("inner", "kill -TSTP $1; read x; exit 5\n")
        spew("job", 'exec "$0" sh inner $$\n')
        self.strange(f"set -m\nsh -c '. ./job' {PLEXRUN}\n"
                     "stty -a | grep -o ' icanon'; stty -a | grep -o 'erase = .'\n"
                     "fg >/dev/null; echo code $?; stty -a | grep -o 'erase = .'\n")
        self.assertIn(" icanon", self.terminal.expect("erase = #"))
        self.eventually(self.raw)
        self.terminal.type("x\n")
        self.assertIn("code 5", self.terminal.expect("erase = #"))
        self.assertEqual(self.back(), 0)
