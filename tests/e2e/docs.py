#!/usr/bin/env python3
"""Holds the documents against the tree:  docs.py SOURCE BUILD

Every source file is on the map, everything the map and its flows name exists; every public routine
stands under a comment; every command that the README shows runs; every page that a document points
to is there; the man pages have no errors.
"""
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

source, build = map(os.path.abspath, sys.argv[1:3])
faults = []


def fault(text):
    faults.append(text)


def read(path):
    with open(os.path.join(source, path), encoding="utf-8") as f:
        return f.read()


def files(*folders, ends=(".cpp", ".h", ".c", ".t", ".py", ".sh")):
    for folder in folders:
        for at, _, names in os.walk(os.path.join(source, folder)):
            for name in names:
                if name.endswith(ends):
                    yield os.path.relpath(os.path.join(at, name), source)


# The map, section by section: a section's heading names the folder its entries are in.
def mapped():
    folder = ""
    for line in read("docs/architecture.md").splitlines():
        if line.startswith("## "):
            folder = line[3:].split(":")[0].strip()
        elif line.startswith("- `"):
            names = re.findall(r"`([^`]+)`", line.split(": ")[0])
            first = os.path.dirname(names[0])
            for i, name in enumerate(names):
                yield folder, name if i == 0 or "/" in name else os.path.join(first, name)


def check_map():
    known = set()
    for folder, name in mapped():
        for candidate in (os.path.join(folder, name), name):
            found = glob.glob(os.path.join(source, candidate))
            if found:
                known.update(os.path.relpath(path, source) for path in found)
                break
        else:
            fault(f"docs/architecture.md: {folder}: {name} does not exist")
    covered = {path for path in known if os.path.isdir(os.path.join(source, path))}
    for path in files("libunix", "libsrc", "tools", "tests", "bench", "fuzz", "scripts"):
        if path not in known and not any(path.startswith(d + "/") for d in covered):
            fault(f"docs/architecture.md does not name {path}")


# Each step of a flow is a function that is defined in its file.
def check_flows():
    steps = re.findall(r"`([\w/]+\.(?:cpp|h)):(\w+)`", read("docs/architecture.md"))
    if not steps:
        fault("docs/architecture.md: no flows")
    for path, name in steps:
        text = read(path) if os.path.exists(os.path.join(source, path)) else ""
        if not re.search(rf"^[^\s/#].*\b{name}\(.*[^;]$", text, re.M):
            fault(f"docs/architecture.md: {path} has no {name}")


# A declaration's contract is the comment above it, or above the group of lines it stands in, or
# beside it.
def check_contracts():
    for path in re.findall(r'#include "(.*)"', read("libsrc/plex.h")):
        lines = read(path).splitlines()
        for i, line in enumerate(lines):
            if not re.match(r"(\[\[noreturn\]\] |extern \"C\" )?[a-z_][\w:<> ]*[ *&]+\w+\([^;{]*", line) or \
               line.startswith(("static_assert", "using", "return", "typedef")):
                continue
            if "//" in line:
                continue
            j = i - 1
            while j >= 0 and lines[j].strip() and not lines[j].lstrip().startswith("//"):
                j -= 1
            if j < 0 or not lines[j].lstrip().startswith("//"):
                fault(f"{path}:{i + 1}: no contract: {line.strip()}")


def run(command, **kwargs):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          stdin=subprocess.DEVNULL, timeout=300, check=False, **kwargs)


# The README's commands run here, in a copy that shares this build. Those that would run the tests
# again are what runs this.
def check_readme():
    with tempfile.TemporaryDirectory() as copy:
        for name in os.listdir(source):
            if name not in (".git", "build") and not name.startswith("build-"):
                os.symlink(os.path.join(source, name), os.path.join(copy, name))
        os.symlink(build, os.path.join(copy, "build"))
        for block in re.findall(r"^```sh\n(.*?)^```", read("README.md"), re.S | re.M):
            for line in block.splitlines():
                command = line.split("  #")[0].strip()
                if not command or command.startswith(("./check", ".ci/run", "sudo ", "scripts/fuzz")):
                    continue
                done = run(["bash", "-c", command], cwd=copy)
                if done.returncode != 0:
                    fault(f"README.md: {command}: status {done.returncode}\n{done.stdout[-2000:]}")


def check_links():
    for path in ["README.md", "CONTRIBUTING.md", *files("docs", ends=(".md",))]:
        text = read(path)
        for target in re.findall(r"\]\(([^)#:]+)\)", text):
            if not os.path.exists(os.path.join(source, os.path.dirname(path), target)):
                fault(f"{path} points to {target}, which does not exist")
        for target in re.findall(r"`((?:docs|libunix|libsrc|tools|tests|bench|fuzz|scripts)/[\w./-]+)`", text):
            base = os.path.join(source, target)
            if not any(os.path.exists(base + end) for end in ("", ".cpp", ".h", ".py")):
                fault(f"{path} names {target}, which does not exist")


def check_manuals():
    if shutil.which("mandoc") is None:
        fault("mandoc is missing")
        return
    pages = sorted(files("docs/man", ends=tuple("123456789")))
    if not pages:
        fault("no man pages")
    for page in pages:
        done = run(["mandoc", "-T", "lint", "-W", "warning", os.path.join(source, page)])
        if done.stdout:
            fault(done.stdout.strip())


check_map()
check_flows()
check_contracts()
check_readme()
check_links()
check_manuals()
for text in faults:
    print(text)
print("the documents hold" if not faults else f"{len(faults)} faults")
sys.exit(1 if faults else 0)
