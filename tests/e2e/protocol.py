#!/usr/bin/env python3
"""Holds docs/protocol.md against a real daemon:  protocol.py PROTOCOL.MD VOSTERD

Its host runs as it stands there; its example is had again, byte for byte.
"""
import contextlib
import os
import re
import resource
import socket
import subprocess
import sys
import tempfile
import time

text = open(sys.argv[1], encoding="utf-8").read()
LIMIT = 60  # seconds that anything may take


def expect(got, want, what):
    if got != want:
        sys.exit(f"{what}:\n  got  {got!r}\n  want {want!r}")


def block(kind):
    found = re.search(rf"^```{kind}\n(.*?)^```", text, re.S | re.M)
    return found[1] if found else sys.exit(f"the document has no {kind} block")


@contextlib.contextmanager
def daemon():
    with tempfile.TemporaryDirectory() as home:
        with open(f"{home}/cfg", "w", encoding="utf-8") as cfg:
            cfg.write(f"HOME={home}\n")
        with subprocess.Popen([os.path.abspath(sys.argv[2])], env={**os.environ, "BBSCONFIG": cfg.name},
                              stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            try:
                yield home, process.pid
                expect(process.wait(LIMIT), 0, "the daemon's status")
            finally:
                process.kill()


def runhost(status, command, output):
    with daemon() as (home, _):
        host = subprocess.run([sys.executable, "-c", block("python"), home, command], text=True, timeout=LIMIT,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    expect((host.returncode, host.stdout), (status, output), f"the host's status and output for {command}")


def replay():
    request, masters = b"", []
    with daemon() as (home, pid), socket.socket(socket.AF_UNIX) as link:
        link.settimeout(LIMIT)
        end = time.monotonic() + LIMIT
        while link.connect_ex(f"{home}/vosterd.socket") != 0:
            expect(time.monotonic() < end, True, "connected in time")
        for line in block("hex").splitlines():
            mark, _, rest = line.partition(" ")
            pieces = [piece.partition("*") for piece in rest.split()] if mark != "#" else []
            data = b"".join(bytes.fromhex(byte) * int(n or 1) for byte, _, n in pieces if byte != "+")
            if line.endswith(" +"):
                byte, fds, _, _ = socket.recv_fds(link, 2, 2)
                expect((byte, len(fds)), (data, 1), line)
                masters += fds
            elif mark == "<":
                expect(link.recv(12, socket.MSG_WAITALL), data, line)
            elif mark == ">":
                request += data
                if len(request) == 1032:
                    expect(link.send(request), 1032, line)
                    request = b""
            elif line.endswith("open nothing any more"):
                with contextlib.suppress(OSError):  # the hang-up: what was sent before has been read
                    while os.read(masters[-1], 4096):
                        pass
                resource.prlimit(pid, resource.RLIMIT_NOFILE, (6, 64))  # it has 0 to 5
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (64, 64))  # a sanitizer's report opens files
        link.shutdown(socket.SHUT_WR)
        expect((link.recv(12), request, len(masters)), (b"", b"", 3), "left over")


runhost(0, '/bin/echo "two words" a\\"b', '1| two words a"b\n1: exit code 0\n')
runhost(1, '/bin/sh -c "kill -9 $$"', "1: signal 9\n")
if sys.byteorder == "little":
    replay()
print("the protocol is as the document says")
