#!/usr/bin/env python3
"""Looks where the daemon's code lies, once it is linked:  layout.py VOSTERD

The linker script goes by the names of the C library's members, and a name that is there no more places nothing, in
silence. So what a launch runs and writes to, and what start-up runs, has to lie in the sections made for it."""
import re
import subprocess
import sys

SECTIONS = {".text.launch": """_Fork close close_range dup2 execv geteuid getuid grantpt ioctl malloc open64 ptsname_r read
                send sendmsg setsid sigaction sigprocmask tcsetattr unlockpt waitpid plex::runcmd plex::pty_fork
                plex::dospawn plex::send_fd plex::process_signal""",
            ".text.start": """frame_dummy plex::bgnlog plex::getcfg plex::lsnsoc plex::maklck plex::opntrm
                plex::stricmp accept4 fopen""",
            ".bss.launch": "plex::children plex::srvmsg plex::buf"}

text = subprocess.check_output(["sh", "-c", 'readelf -SW "$0"; nm -C "$0"', sys.argv[1]], text=True)
ranges = {name: range(int(at, 16), int(at, 16) + int(size, 16))
          for name, at, size in re.findall(r" (\.\S+) +\w+ +(\w+) \w+ (\w+)", text)}
symbols = {name: int(at, 16) for at, name in
           re.findall(r"(?m)^(\w+) \w ([^(\n]+)", text.replace("(anonymous namespace)::", ""))}
strays = [name for where, names in SECTIONS.items() for name in names.split()
          if symbols.get(name) not in ranges.get(where, ())]
strays += {"emergency_pool"} & symbols.keys()  # the C++ library's: a seventh more memory
print("outside their sections:" if strays else "the layout holds", *strays)
sys.exit(bool(strays))
