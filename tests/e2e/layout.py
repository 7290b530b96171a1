#!/usr/bin/env python3
"""Looks where the daemon's code lies, once it is linked:  layout.py VOSTERD

The linker script goes by the names of the C library's members, and a name that is there no more
places nothing, in silence. So what a launch runs and writes to, and what start-up runs, has to lie
in the sections made for it.
"""
import re
import subprocess
import sys

CODE = """_Fork close close_range dup2 execv geteuid getuid grantpt ioctl malloc open64 ptsname_r read send
          sendmsg setsid sigaction sigprocmask tcsetattr unlockpt waitpid
          plex::runcmd plex::pty_fork plex::dospawn plex::send_fd plex::process_signal"""
START = "frame_dummy plex::bgnlog plex::getcfg plex::lsnsoc plex::maklck plex::opntrm plex::stricmp accept4 fopen"
DATA = "plex::children plex::srvmsg plex::buf"


def output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


def section(name):
    found = re.search(re.escape(name) + r" +\w+ +(\w+) \w+ (\w+)", output("readelf", "-SW", sys.argv[1]))
    start, size = (int(n, 16) for n in found.groups()) if found else (0, 0)
    return range(start, start + size)


symbols = {}
for line in output("nm", "-C", sys.argv[1]).splitlines():
    at, _, name = line.partition(" ")
    symbols[re.sub(r"\(anonymous namespace\)::|\(.*", "", name[2:])] = int(at or "0", 16)
strays = [name for names, where in ((CODE, ".text.launch"), (START, ".text.start"), (DATA, ".bss.launch"))
          for name in names.split() if symbols.get(name) not in section(where)]
print("outside their sections:" if strays else "the layout holds", *strays)
sys.exit(bool(strays))
