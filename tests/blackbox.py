#!/usr/bin/env python3
"""What the suites from outside share: programs that never outlive their test, terminals, a daemon with the test as
its host. The host is the one that docs/protocol.md gives to everybody.
    blackbox.py SUITE [CLASS[.TEST]]..."""
import contextlib
import ctypes
import fcntl
import io
import os
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import types
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.environ.get("BUILD_DIR", f"{SOURCE}/build")
PATIENCE = 10  # seconds that nothing takes; a test that waits as long has failed
PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
TIOCGPTN = 0x80045430  # the number of a master's terminal
libc = ctypes.CDLL(None)


def slurp(path):
    with contextlib.suppress(OSError), open(path, encoding="latin-1", newline="") as f:
        return f.read()
    return ""


def spew(path, text, mode=0o644):
    with open(path, "w", encoding="latin-1", newline="") as f:
        f.write(text)
    os.chmod(path, mode)


def block(kind):
    """A block of docs/protocol.md"""
    return re.search(rf"^```{kind}\n(.*?)^```", slurp(f"{SOURCE}/docs/protocol.md"), re.S | re.M)[1]


program = f"{BUILD}/vosterd"
with open(program + ".elf" * os.path.exists(program + ".elf"), "rb") as elf:
    order = "<>"[elf.read(6)[5] - 1]  # of the daemon's numbers: under an emulator it may be another than ours
protocol = types.ModuleType("protocol")
exec(block("python").replace('"=', '"' + order), protocol.__dict__)  # pylint: disable=exec-used
RUN, KILL, STARTED, FAILED, ENDED = (getattr(protocol, n) for n in "RUN KILL STARTED FAILED ENDED".split())


def children(pid):
    """The children of a process, ended ones included"""
    return [int(child) for child in slurp(f"/proc/{pid}/task/{pid}/children").split()]


def stat(pid):
    """What the kernel says of a process from its state on; the state of one that is gone is "-" """
    return slurp(f"/proc/{pid}/stat").rpartition(") ")[2].split() or ["-"]


def status(pid, field):
    return re.search(rf"^{field}:\t(.*)", slurp(f"/proc/{pid}/status") + f"\n{field}:\t", re.M)[1]


def descriptors(pid):
    """What a process has open, by number"""
    found = {}
    with contextlib.suppress(OSError):
        for fd in os.listdir(f"/proc/{pid}/fd"):
            found[int(fd)] = os.readlink(f"/proc/{pid}/fd/{fd}")
    return found


def readable(fd, seconds=PATIENCE):
    poll = select.poll()  # descriptors may be beyond what select can name
    poll.register(fd, select.POLLIN)
    return bool(poll.poll(max(seconds, 0) * 1000))


def tied():
    """In a new process: it ends with the test, however that ends"""
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Terminal(io.FileIO):
    """A terminal's master"""

    def __init__(self, fd):
        super().__init__(fd, "r+")
        self.rest = ""  # what came and was not asked for

    def more(self):
        """Reads on; false when it hung up"""
        assert readable(self), f"nothing came behind {self.rest[-2000:]!r}"
        text = ""
        with contextlib.suppress(OSError):
            text = os.read(self.fileno(), 65536).decode("latin-1")
        self.rest += text
        return text != ""

    def drain(self):
        while self.more():
            pass
        return self.rest

    def expect(self, text):
        """All up to and with the text"""
        while text not in self.rest:
            assert self.more(), f"the end came, not {text!r}, behind {self.rest[-2000:]!r}"
        end = self.rest.index(text) + len(text)
        got, self.rest = self.rest[:end], self.rest[end:]
        return got

    def type(self, keys, shown=""):
        os.write(self.fileno(), keys.encode("latin-1"))
        got = self.expect(shown)
        assert got == shown, f"typed {keys!r}: got {got!r}, not {shown!r}"

    def path(self):
        """The terminal's own side"""
        return f"/dev/pts/{int.from_bytes(fcntl.ioctl(self, TIOCGPTN, bytes(4)), sys.byteorder)}"

    def size(self, *new):
        """Rows, columns and pixels, perhaps new ones"""
        request, room = (termios.TIOCSWINSZ, new) if new else (termios.TIOCGWINSZ, (0, 0, 0, 0))
        return struct.unpack("4H", fcntl.ioctl(self, request, struct.pack("4H", *room)))


class Screen:
    """A terminal that tmux keeps"""

    def __init__(self, name, command, columns=80, rows=26):
        self.name = name
        self.tmux("new-session", "-d", "-s", name, "-x", str(columns), "-y", str(rows),
                  command + "; echo status=$?; exec cat")

    def tmux(self, *args):
        own = {"LC_ALL": "C.UTF-8", "SHELL": "/bin/sh", "TERM": "xterm", "BBSCONFIG": "/dev/null"}
        return subprocess.run(["tmux", "-u", "-S", "./tmux", "-f", "/dev/null", *args], capture_output=True,
                              encoding="utf-8", check=False, env=os.environ | own).stdout

    def keys(self, *keys):
        self.tmux("send-keys", "-t", self.name, *keys)

    def shows(self, pattern, *how):
        """The text, once it has what is searched for"""
        end = time.monotonic() + 2 * PATIENCE
        while not re.search(pattern, shown := self.tmux("capture-pane", "-p", *how, "-t", self.name)):
            assert time.monotonic() < end, f"no {pattern!r} in\n{shown}"
            time.sleep(0.01)
        return shown


class DaemonSuite(unittest.TestCase):
    """Each test has a home of its own; whatever it started, and what that started, ends with it"""
    file = f"{BUILD}/vosterd"
    limit = 50  # seconds for a whole test; ctest, which leaves the home, has 60

    def setUp(self):
        libc.prctl(PR_SET_CHILD_SUBREAPER, 1)
        self.serving = False  # a daemon, whose orderly end is still to come
        self.home = tempfile.mkdtemp(prefix="plextest.")
        os.chdir(self.home)
        for undo in ((shutil.rmtree, self.home, True), (os.chdir, "/"), (self.endall,), (signal.alarm, 0)):
            self.addCleanup(*undo)  # the last one first
        signal.signal(signal.SIGALRM, lambda *_: self.fail("the test takes too long"))
        signal.alarm(self.limit)

    def tearDown(self):
        if self.serving:
            self.finish()

    def endall(self):
        while mine := children(os.getpid()):
            for pid in mine:
                with contextlib.suppress(OSError):
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)

    def eventually(self, done, what="it does not happen"):
        end = time.monotonic() + PATIENCE
        while not done():
            self.assertLess(time.monotonic(), end, what() if callable(what) else what)
            time.sleep(0.001)

    def environment(self, more):
        """The environment with more; None takes a name away"""
        whole = {k: v for k, v in os.environ.items() if not k.startswith("BBS")} | dict(more)
        return {k: v for k, v in whole.items() if v is not None}

    def popen(self, *args, env=(), setup=None, **more):
        """A program that is tied to the test; setup: what it does first"""
        pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        return subprocess.Popen(args, env=self.environment(dict(env)),
                                preexec_fn=lambda: (tied(), setup and setup()), **pipes | more)

    def ended(self, program, text=b""):
        """The status of a program, its output and what it said"""
        out, err = program.communicate(text or None, PATIENCE)
        return program.returncode, out.decode("latin-1"), err.decode("latin-1")

    def onterminal(self, script, **env):
        """A shell's process, and its terminal"""
        pid, fd = pty.fork()
        if pid == 0:
            tied()
            os.execvpe("bash", ["bash", "-c", script], self.environment(env))
        return pid, Terminal(fd)

    def start(self, *args, cfg="", env=(), file=None, **more):
        self.endall()  # what a row of a table that failed has left
        spew("cfg", f"HOME={self.home}\n{cfg}")
        own = {"BBSCONFIG": f"{self.home}/cfg", "HOME": "/nowhere"}
        with open("stderr", "w", encoding="ascii") as err:
            more = {"stdout": err, "stderr": err} | more
            self.daemon = self.popen(file or self.file, *args, env=own | dict(env), **more)

    def begin(self, *args, **more):
        self.start(*args, **more)
        self.host = protocol.Host(self.home)
        self.host.link.settimeout(PATIENCE)
        self.serving = True

    def wait(self):
        """The daemon's status, and what it said"""
        self.serving = False
        self.daemon.wait(PATIENCE)
        return self.daemon.returncode, slurp("stderr")

    def finish(self, code=0, err="", stuck=False):
        """Closes the link and expects an orderly end; stuck: but for the lock. No command may stay."""
        self.host.link.close()
        self.assertEqual(self.wait(), (code, err))
        self.assertEqual((os.path.exists("vosterd.pid"), os.path.exists("vosterd.socket")), (stuck, False))
        self.eventually(lambda: not self.running(os.getpid()), lambda: f"left: {self.running(os.getpid())}")

    def hear(self, size):
        """So many bytes of the daemon's, and the terminals that come with them"""
        heard, fds = b"", []
        while len(heard) < size:
            data, more, _, _ = socket.recv_fds(self.host.link, size - len(heard), 9)
            self.assertTrue(data, heard)
            heard, fds = heard + data, fds + more
        return heard, [Terminal(fd) for fd in fds]

    def run_(self, user, line):
        self.host.request(RUN, user, line.encode("latin-1"))
        self.assertEqual(self.host.record(), (user, STARTED, 0))
        return Terminal(self.host.master())

    def output(self, user, line):
        """All that a command writes until its end"""
        return self.over(self.run_(user, line), user, ENDED, 0)

    def over(self, terminal, *record):
        """What a terminal shows until it hangs up; then comes the record, if one is given"""
        with terminal:
            text = terminal.drain()
        if record:
            self.assertEqual(self.host.record(), record)
        return text

    def signal(self, signo):
        os.kill(self.daemon.pid, signo)

    def open_(self, count):
        """The daemon comes to have so many descriptors open"""
        self.eventually(lambda: len(descriptors(self.daemon.pid)) == count,
                        lambda: f"{descriptors(self.daemon.pid)}")

    def commands(self):
        return children(self.daemon.pid)

    def running(self, pid=None):
        return [c for c in children(pid or self.daemon.pid) if stat(c)[0] not in "Z-"]

    def endtogether(self, terminals, keys):
        """Lets all commands that run end while the daemon cannot look"""
        self.signal(signal.SIGSTOP)
        self.eventually(lambda: stat(self.daemon.pid)[0] == "T")
        for terminal in terminals:
            terminal.type(keys)
        self.eventually(lambda: not self.running(), lambda: f"run on: {self.running()}")
        self.signal(signal.SIGCONT)


if __name__ == "__main__":
    unittest.main(sys.argv.pop(1), verbosity=2, warnings="ignore")
