#!/usr/bin/env python3
"""plexrun between files and pipes, and how all the tools answer for themselves:  plexrun_pipes.py [CLASS[.TEST]]..."""
import os
import pty
import signal
import subprocess
import tempfile
import termios
import unittest

from blackbox import BUILD, PATIENCE, main

PLEXRUN = f"{BUILD}/plexrun"


class Pipes(unittest.TestCase):
    def setUp(self):
        home = tempfile.TemporaryDirectory()
        self.addCleanup(home.cleanup)
        self.home = home.name
        self.env = {"PATH": "/usr/bin:/bin", "TMPDIR": home.name, "BBSCONFIG": "/dev/null"}

    def run_to_end(self, args, **kwargs):
        done = subprocess.run(args, cwd=self.home, env=self.env, timeout=PATIENCE,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, **kwargs)
        return done.returncode, done.stdout, done.stderr

    def testAsWithoutIt(self):
        every = bytes(range(256))
        inputs = [b"", b"a\nb\n\x1a", every, every * 41 + b"\n",
                  b"x" * 70000 + b"\n" + os.urandom(1 << 20)]
        commands = ["cat", "sort", "tail -c 1000", "read x; cat", "head -c 5; echo err >&2; exit 3",
                    "cat >&2; kill -9 $$", "[ -t 0 ] || [ -t 1 ] || [ -t 2 ] || echo none"]
        for data in inputs:
            with open(self.home + "/input", "wb") as file:
                file.write(data)
            for command in commands:
                with self.subTest(command=command, data=data[:20], size=len(data)):
                    plain = self.run_to_end(["sh", "-c", command], input=data)
                    status = plain[0] if plain[0] >= 0 else 128 - plain[0]
                    line = [PLEXRUN, "sh", "-c", command]
                    piped = self.run_to_end(line, input=data)
                    with open(self.home + "/input", "rb") as file:
                        filed = self.run_to_end(line, stdin=file)
                    for got in (piped, filed):
                        self.assertEqual(got[0], status)
                        self.assertTrue(got[1:] == plain[1:], (got[1][:80], got[2][:80]))

    def testWhatIsSharedStaysShared(self):
        for script, want in [
                ("(read x; \"$0\" cat; cat) <input; echo $?", b"two\n0\n"),
                ("\"$0\" echo new >>input; cat input", b"one\ntwo\nnew\n"),
                ("\"$0\" yes | head -1; echo ${PIPESTATUS[0]}", b"y\n141\n"),
                ("\"$0\" seq 9 >/dev/full; echo $?", b"1\n"),
                ("\"$0\" sh -c 'echo text; echo shown >/dev/tty' 2>err; cat err",
                 b"text\nshown\r\n")]:
            with self.subTest(script=script):
                with open(self.home + "/input", "wb") as file:
                    file.write(b"one\ntwo\n")
                self.assertEqual(self.run_to_end(["bash", "-c", script, PLEXRUN])[1], want)

    def testALineOfItsOwnIsTyped(self):
        line = [PLEXRUN, "-c", '/bin/sh -c "stty -echo; echo ready; exec cat"']
        child = subprocess.Popen(line, env=self.env, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        with child:
            self.assertEqual(child.stdout.readline(), b"ready\r\n")
            self.assertEqual(child.communicate(b"one\ntwo", PATIENCE)[0], b"one\r\ntwo")
            self.assertEqual(child.returncode, 0)

    def testIgnoredSignalsStayIgnored(self):
        child = subprocess.Popen([PLEXRUN, "sh", "-c", "echo ready; read x; exit 7"], env=self.env,
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        with child:
            self.assertEqual(child.stdout.readline().strip(), b"ready")
            child.send_signal(signal.SIGHUP)
            child.communicate(b"x\n", PATIENCE)
            self.assertEqual(child.returncode, 7)

    def testEndOfFileAsOnOnesOwnTerminal(self):
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, slave)
        settings = termios.tcgetattr(slave)
        settings[6][termios.VEOF] = b"\x18"
        termios.tcsetattr(slave, termios.TCSANOW, settings)
        shown = self.run_to_end([PLEXRUN, "stty", "-a"], stdin=slave)[1]
        self.assertIn(b"eof = ^X;", shown)


class Tools(unittest.TestCase):
    def testHelpAndVersion(self):
        with tempfile.TemporaryDirectory() as home:
            for tool in ("plexrun", "plexmsg", "conshow", "plexview"):
                for option in ("--help", "-h", "--version", "-Z"):
                    with self.subTest(tool=tool, option=option):
                        if not os.path.exists(f"{BUILD}/{tool}"):
                            self.assertEqual(tool, "plexview", "only this needs what may be missing")
                            continue
                        done = subprocess.run([f"{BUILD}/{tool}", option], cwd=home, text=True,
                                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                              stderr=subprocess.PIPE, timeout=PATIENCE)
                        said = done.stderr if option == "-Z" else done.stdout
                        self.assertRegex(said, {"--version": rf"^{tool} \(vosterd\) \d+\.\d+\.\d+\n$",
                                                "-Z": rf"^{tool}: unknown option '-Z' "}.get(
                                                    option, f"^usage: {tool} "))
                        want = 0 if option != "-Z" else 120 if tool == "plexrun" else 2
                        self.assertEqual(done.returncode, want)
                        self.assertEqual(done.stdout if option == "-Z" else done.stderr, "")


if __name__ == "__main__":
    main()
