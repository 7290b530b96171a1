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

SOURCE, BUILD = map(os.path.abspath, sys.argv[1:3])
MAP, FOLDERS = "docs/architecture.md", ("libunix", "libsrc", "tools", "tests", "bench", "fuzz", "scripts")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def files(*folders, ends=(".cpp", ".h", ".c", ".t", ".py", ".sh")):
    return [path for folder in folders for path in sorted(glob.glob(folder + "/**", recursive=True))
            if path.endswith(ends)]


def run(*command, **more):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          stdin=subprocess.DEVNULL, timeout=300, check=False, **more)
    return done.returncode, done.stdout[-2000:]


class Documents(unittest.TestCase):
    def test_map(self):
        # A section's heading names the folder its entries are in.
        known, folder = set(), ""
        for line in read(MAP).splitlines():
            if line.startswith("## "):
                folder = line[3:].split(":")[0].strip()
            names = re.findall(r"`([^`]+)`", line.split(": ")[0]) if line.startswith("- `") else []
            for name in names:
                beside = os.path.join(folder, os.path.dirname(names[0]), name)
                found = glob.glob(os.path.join(folder, name)) or glob.glob(name) or glob.glob(beside)
                self.assertTrue(found, "%s: %s: %s does not exist" % (MAP, folder, name))
                known.update(map(os.path.normpath, found))
        for path in files(*FOLDERS):
            self.assertTrue(known & {path, os.path.dirname(path)}, MAP + " does not name " + path)
        for path, name in re.findall(r"`([\w/]+\.(?:cpp|h)):(\w+)`", read(MAP)):  # a step of a flow
            self.assertRegex(read(path), r"(?m)^[^\s/#].*\b%s\(.*[^;]$" % name, path)

    def test_contracts(self):
        # The comment above a declaration, above the group of lines it stands in, or beside it.
        declared = re.compile(r"(?!static_assert|using|return|typedef)"
                              r"(\[\[noreturn\]\] |extern \"C\" )?[a-z_][\w:<> ]*[ *&]+\w+\([^;{]*")
        for path in re.findall(r'#include "(.*)"', read("libsrc/plex.h")):
            for group in read(path).split("\n\n"):
                told = False
                for line in group.splitlines():
                    told = told or line.lstrip().startswith("//")
                    self.assertTrue(told or "//" in line or not declared.match(line),
                                    "%s: no contract: %s" % (path, line))

    def test_readme(self):
        # Its commands run here, in a copy that shares this build. Those that would run the tests
        # again are what runs this.
        with tempfile.TemporaryDirectory() as copy:
            for name in os.listdir():
                if name not in (".git", "build") and not name.startswith("build-"):
                    os.symlink(os.path.abspath(name), os.path.join(copy, name))
            os.symlink(BUILD, os.path.join(copy, "build"))
            for line in "".join(re.findall(r"(?ms)^```sh\n(.*?)^```", read("README.md"))).splitlines():
                command = line.split("  #")[0].strip()
                if not command.startswith(("./check", ".ci/run", "sudo ", "scripts/fuzz")):
                    code, said = run("bash", "-c", command, cwd=copy)
                    self.assertEqual(code, 0, command + "\n" + said)

    def test_links(self):
        for path in ["README.md", "CONTRIBUTING.md", *files("docs", ends=".md")]:
            targets = [os.path.join(os.path.dirname(path), target)
                       for target in re.findall(r"\]\(([^)#:]+)\)", read(path))]
            targets += re.findall(r"`((?:%s)/[\w./-]+)`" % "|".join(("docs", *FOLDERS)), read(path))
            for target in targets:
                self.assertTrue(any(os.path.exists(target + end) for end in ("", ".cpp", ".h", ".py")),
                                "%s names %s, which does not exist" % (path, target))

    def test_manuals(self):
        pages = files("docs/man", ends=tuple("123456789"))
        self.assertEqual(run("mandoc", "-T", "lint", "-W", "warning", *pages), (0, ""))


if __name__ == "__main__":
    os.chdir(SOURCE)
    unittest.main(argv=sys.argv[:1])
