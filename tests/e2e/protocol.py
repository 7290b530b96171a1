#!/usr/bin/env python3
"""Holds docs/protocol.md against a real daemon:  protocol.py PROTOCOL.MD VOSTERD [--example]

Its host runs as it stands there; its example is had again, byte for byte, and is laid out as its own
tables say. With --example the conversation is printed instead, for the document.
"""
import contextlib
import os
import re
import resource
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

text = open(sys.argv[1], encoding="utf-8").read()
vosterd = os.path.abspath(sys.argv[2])
LIMIT = 60  # seconds that anything may take


def expect(got, want, what):
    if got != want:
        sys.exit(f"{what}:\n  got  {got!r}\n  want {want!r}")


def eventually(condition, what):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"{what}: never")
        time.sleep(0.001)


def state(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rpartition(") ")[2][0]


def block(kind):
    found = re.search(rf"^```{kind}\n(.*?)^```", text, re.S | re.M)
    return found[1] if found else sys.exit(f"the document has no {kind} block")


@contextlib.contextmanager
def home():
    with tempfile.TemporaryDirectory() as path:
        with open(f"{path}/cfg", "w", encoding="utf-8") as cfg:
            cfg.write(f"HOME={path}\n")
        yield path


@contextlib.contextmanager
def daemon(path, status=0):
    env = {**os.environ, "BBSCONFIG": f"{path}/cfg"}
    with subprocess.Popen([vosterd], env=env, stdin=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL) as process:
        try:
            yield process
            expect(process.wait(LIMIT), status, "the daemon's status")
            expect(sorted(set(os.listdir(path)) & {"vosterd.pid", "vosterd.socket"}), [], "left over")
        finally:
            process.kill()


# The document's host, with the daemon started behind it: it has to wait for that.
def runhost(commands, output, status, ended=0, meddle=None):
    with home() as path:
        with open(f"{path}/host.py", "w", encoding="utf-8") as script:
            script.write(block("python"))
        with subprocess.Popen([sys.executable, f"{path}/host.py", path, *commands],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True) as host:
            try:
                with daemon(path, ended) as process:
                    if meddle is not None:
                        meddle(path, process)
                    got = host.communicate(timeout=LIMIT)[0]
            finally:
                host.kill()
        expect(sorted(got.splitlines()), output, f"the host's output for {commands}")
        expect(host.returncode, status, f"the host's status for {commands}")


def check_host():
    runhost(['/bin/echo "two words" a\\"b'], ['1: exit code 0', '1| two words a"b'], 0)
    runhost(['/bin/sh -c "kill -9 $$"'], ["1: signal 9"], 1)
    runhost(["/no/such"],
            ["1: exit code 255", "1| dospwn: execv failed: (2) No such file or directory"], 1)
    # The second goes when the first was reaped: both are told.
    runhost(['/bin/sh -c "echo $$ > pid; exit 3"',
             '/bin/sh -c "until test -s pid && ! kill -0 `cat pid` 2>/dev/null; do :; done; stty size"'],
            ["1: exit code 3", "2: exit code 0", "2| 24 80"], 1)
    # An end that nobody tells: the daemon stands still until both are over.
    def merge(path, process):
        eventually(lambda: os.path.exists(f"{path}/b"), "the second command's start")
        with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as children:
            pids = children.read().split()
        process.send_signal(signal.SIGSTOP)
        eventually(lambda: state(process.pid) == "T", "the daemon's stop")
        open(f"{path}/go", "w", encoding="ascii").close()
        eventually(lambda: [state(pid) for pid in pids] == ["Z", "Z"], "the commands' end")
        process.send_signal(signal.SIGCONT)
    wait = '/bin/sh -c "until test -e a; do :; done; echo > %s; until test -e go; do :; done"'
    runhost([wait.replace("until test -e a; do :; done; ", "") % "a", wait % "b"],
            ["1: exit code 0", "2: ended, nobody says how"], 1, meddle=merge)
    # A daemon that goes away while commands run.
    def leave(path, process):
        eventually(lambda: os.path.exists(f"{path}/a"), "the command's start")
        process.terminate()
    runhost(['/bin/sh -c "echo > a; exec sleep 1000"'], ["the daemon is gone"], 1, 115, leave)


def hexlines(mark, data):
    lines, rest = [data[:8].hex(" ")] if mark == ">" else [], data[8:] if mark == ">" else data
    body = rest.rstrip(b"\0") if mark == ">" else rest
    lines += [body[i:i + 24].hex(" ") for i in range(0, len(body), 24)]
    if len(body) < len(rest):
        lines.append(f"00*{len(rest) - len(body)}")
    return "".join(f"{mark} {line}\n" for line in lines)


# The conversation of the example; returns it as the document has it.
def converse():
    told = ""
    with home() as path, daemon(path) as process, socket.socket(socket.AF_UNIX) as link:
        link.settimeout(LIMIT)

        def connected():
            try:
                link.connect(f"{path}/vosterd.socket")
                return True
            except (FileNotFoundError, ConnectionRefusedError):
                return False

        def send(what, usrnum, msgtyp, command=""):
            nonlocal told
            request = struct.pack("=ii1024s", usrnum, msgtyp, command.encode())
            told += f"# {what}\n" + hexlines(">", request)
            expect(link.send(request), 1032, "sent")

        def receive(descriptor=False):
            nonlocal told
            got = link.recv(12, socket.MSG_WAITALL)
            told += hexlines("<", got)
            if descriptor:
                byte, fds, _, _ = socket.recv_fds(link, 2, 2)
                expect((len(byte), len(fds)), (1, 1), "bytes and descriptors")
                told += f"< {byte.hex()} +\n"
                return fds[0]

        eventually(connected, "a connection")
        for user, command in ((7, '/bin/sh -c "exit 3"'), (8, '/bin/sh -c "kill -9 $$"')):
            send(f"user {user}: run {command}", user, 1, command)
            os.close(receive(True))
            receive()
        send("user -1: run /bin/cat", -1, 1, "/bin/cat")
        master = receive(True)
        send("user -1: kill; no answer, and no notice of the end", -1, 2)
        send("user -1: a kind that does not exist; no answer", -1, 99)
        try:
            while os.read(master, 4096):
                pass
        except OSError:
            pass  # it is over, and the daemon has read what was sent before
        finally:
            os.close(master)
        resource.prlimit(process.pid, resource.RLIMIT_NOFILE, (6, 64))  # it has 0 to 5
        send("user 9: run /bin/true, while the daemon can open nothing any more", 9, 1, "/bin/true")
        receive()
        resource.prlimit(process.pid, resource.RLIMIT_NOFILE, (64, 64))  # a sanitizer's report opens files
    return told + "# the host closes the link; the daemon does, too\n"


def layout(section):
    rows = re.search(rf"^### {section}.*?: (\d+) bytes\n(.*?)^#", text, re.S | re.M)
    fields, at = {}, 0
    for offset, size, name in re.findall(r"^\| (\d+) \| (\d+) \| `(\w+)` ", rows[2], re.M):
        expect(int(offset), at, f"the offset of {name}")
        at += int(size)
        fields[name] = slice(int(offset), at)
    expect(at, int(rows[1]), f"the size of {section.lower()}")
    return at, fields


# The example by the document's own tables: whole records of known kinds, a descriptor behind every
# -1, and each request what the words above it say.
def check_example():
    sizes = {">": layout("Requests"), "<": layout("Records")}
    expect([size for size, _ in sizes.values()], [1032, 12], "sizes")
    pending = {">": b"", "<": b""}
    said, kinds, owed = "", [], False
    number = lambda data, field: int.from_bytes(data[field], "little", signed=True)
    for line in block("hex").splitlines():
        mark, rest = line[0], line[2:]
        if mark == "#":
            said = rest
        elif rest == "00 +":
            expect(owed, True, "a descriptor's place")
            owed = False
        else:
            for piece in rest.split():
                byte, _, times = piece.partition("*")
                pending[mark] += bytes.fromhex(byte) * int(times or 1)
            size, fields = sizes[mark]
            if len(pending[mark]) < size:
                continue
            data, pending[mark] = pending[mark], b""
            expect((len(data), owed), (size, False), f"size; a descriptor owed ({said})")
            kind = number(data, fields["msgtyp"])
            kinds.append(kind)
            owed = kind == -1
            if mark == ">":
                expect(said.startswith(f"user {number(data, fields['usrnum'])}: "), True, said)
                command = data[fields["cmdstg"]].rstrip(b"\0").decode()
                expect(f": run {command}" in said if kind == 1 else command == "", True, said)
            elif kind == -3:
                status = number(data, fields["message"])
                expect(status, 3 << 8 if "exit 3" in said else 9, "the wait status")
    expect((pending, owed), ({">": b"", "<": b""}, False), "left over")
    expect(kinds, [1, -1, -3, 1, -1, -3, 1, -1, 2, 99, 1, -2], "kinds")


if "--example" in sys.argv:
    print(converse(), end="")
    sys.exit()
check_example()
if sys.byteorder == "little":
    expect(converse(), block("hex"), "the example, had again")
check_host()
print("the protocol is as the document says")
