#!/usr/bin/env python3
"""Holds the documents against the tree:  docs.py SOURCE BUILD

Every source file is on the map, everything the map names exists; every public routine stands under a comment; every
command that the README shows runs; every page that a document points to is there; the man pages have no errors."""
import glob
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE, BUILD = map(os.path.abspath, sys.argv[1:3])
MAP, FOLDERS = "docs/architecture.md", ("libunix", "libsrc", "tools", "tests", "bench", "fuzz", "scripts")


def files(*folders, ends):
    return [path for folder in folders for path in sorted(glob.glob(folder + "/**", recursive=True))
            if path.endswith(ends)]


class Documents(unittest.TestCase):
    def runs(self, *command, **more):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              stdin=subprocess.DEVNULL, timeout=300, check=False, **more)
        self.assertEqual(done.returncode, 0, "%s\n%s" % (command, done.stdout[-2000:]))

    def test_map(self):
        text, known, folder = Path(MAP).read_text(), set(), ""
        for line in text.splitlines():
            if line.startswith("## "):  # a section's heading names the folder its entries are in
                folder = line[3:].split(":")[0].strip()
            names = re.findall(r"`([^`]+)`", line.split(": ")[0]) if line.startswith("- `") else []
            for name in names:
                beside = os.path.join(folder, os.path.dirname(names[0]), name)
                found = glob.glob(os.path.join(folder, name)) or glob.glob(name) or glob.glob(beside)
                self.assertTrue(found, "%s: %s: %s does not exist" % (MAP, folder, name))
                known.update(map(os.path.normpath, found))
        for path in files(*FOLDERS, ends=(".cpp", ".h", ".c", ".t", ".py", ".sh")):
            self.assertTrue(known & {path, os.path.dirname(path)}, MAP + " does not name " + path)
        for path, name in re.findall(r"`([\w/]+\.(?:cpp|h)):(\w+)`", text):  # a step of a flow
            self.assertRegex(Path(path).read_text(), r"(?m)^[^\s/#].*\b%s\(.*[^;]$" % name, path)

    def test_contracts(self):
        # The comment above a declaration, above the group of lines it stands in, or beside it.
        declared = re.compile(r"(?!static_assert|using|return|typedef)"
                              r"(\[\[noreturn\]\] |extern \"C\" )?[a-z_][\w:<> ]*[ *&]+\w+\([^;{]*")
        for path in re.findall(r'#include "(.*)"', Path("libsrc/plex.h").read_text()):
            for group in Path(path).read_text().split("\n\n"):
                untold = re.split(r"(?m)^\s*//", group)[0].splitlines()
                bare = [line for line in untold if "//" not in line and declared.match(line)]
                self.assertEqual(bare, [], path + ": no contract")

    def test_readme(self):
        # Its commands run here, in a copy that shares this build. Those that would run the tests again are what runs
        # this.
        with tempfile.TemporaryDirectory() as copy:
            for name in os.listdir():
                if name != ".git" and not re.match("build(-|$)", name):
                    os.symlink(os.path.abspath(name), os.path.join(copy, name))
            os.symlink(BUILD, os.path.join(copy, "build"))
            for block in re.findall(r"(?ms)^```sh\n(.*?)^```", Path("README.md").read_text()):
                for line in block.splitlines():
                    if not line.startswith(("./check", ".ci/run", "sudo ", "scripts/fuzz")):
                        self.runs("bash", "-c", line, cwd=copy)

    def test_links(self):
        for path in ["README.md", "CONTRIBUTING.md", *files("docs", ends=".md")]:
            text = Path(path).read_text()
            targets = [os.path.join(os.path.dirname(path), to) for to in re.findall(r"\]\(([^)#:]+)\)", text)]
            targets += re.findall(r"`((?:%s)/[\w./-]+)`" % "|".join(("docs", *FOLDERS)), text)
            lost = [to for to in targets if not any(os.path.exists(to + end) for end in ("", ".cpp", ".h", ".py"))]
            self.assertEqual(lost, [], path + " names what does not exist")

    def test_manuals(self):
        self.runs("mandoc", "-T", "lint", "-W", "warning", *files("docs/man", ends=tuple("123456789")))


os.chdir(SOURCE)
unittest.main(argv=sys.argv[:1])
