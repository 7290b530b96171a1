"""plexmsg: what it makes of sources, what it shows of files, damaged ones too"""
import os
import stat
import struct

from blackbox import BUILD, DaemonSuite, slurp, spew

SOURCE = """\
# two languages
language English/ANSI
language French/ANSI

message HELLO
text French/ANSI
|Bonjour\\x21
text english/ansi
|  \\e[1mHello \\
|there,
|
|\\\\ # no comment \r
message 3 BYE
 text English/ANSI\t
|Bye
message 2
text English/ANSI
|Two
text French/ANSI
|
"""
TEXTS = ["  \x1B[1mHello there,\n\n\\ # no comment \0", "Bonjour!\0", "", "", "Two\0", "\0", "Bye\0", ""]
NUMBERS = (0, 45, 45, 50, 54, *map(len, TEXTS), 54, 99, 79, 2, 4)
FILE = "".join(TEXTS) + "English/ANSI\0French/ANSI\0" + struct.pack("<5i8H3i2h", *NUMBERS).decode("latin-1")
LOCATIONS, TRAILER = 79, 115


class Plexmsg(DaemonSuite):
    def plexmsg(self, *args, path=""):
        """What it says, and its status unless that is 0"""
        code, out, err = self.ended(self.popen(f"{BUILD}/plexmsg", *args, env={"MCVPATH": path}))
        return out + err + (f"{code}" if code else "")

    def compiled(self, source, *args):
        spew("s", source)
        return self.plexmsg("compile", *(args or ("s", "out")))

    def testCompileListShow(self):
        self.assertEqual(self.compiled(SOURCE, "-n", "n.h", "s", "s.mcv"), "")
        self.assertEqual(slurp("s.mcv"), FILE)
        self.assertEqual(slurp("n.h"), "// The numbers of the messages. Made by plexmsg.\n#pragma once\n\n"
                                       "constexpr int HELLO = 0;\nconstexpr int BYE = 3;\n")
        self.assertEqual(self.plexmsg("list", "s.mcv"), """\
s.mcv: 2 languages, 4 messages
language 0 English/ANSI
language 1 French/ANSI
message 0 English/ANSI 36 "  \\x1B[1mHello there,\\n\\n\\\\ # no comment "
message 0 French/ANSI 9 "Bonjour!"
message 1 has no text
message 2 English/ANSI 4 "Two"
message 2 French/ANSI 1 ""
message 3 English/ANSI 4 "Bye"
""")
        for args, want in ((("0",), TEXTS[0][:-1] + "\n"), (("0", "-l", "french"), "Bonjour!\n"),
                           (("0", "-l", "x"), "plexmsg: s.mcv has no language \"x\", or several\n1"),
                           (("1x",), "plexmsg: \"1x\" is not a message number\n1"),
                           (("-l", "x"), "plexmsg: show takes 2 words, not 1 (see plexmsg --help)\n2")):
            self.assertEqual(self.plexmsg("show", "s.mcv", *args), want)
        # What needs a code, and the first byte that is no longer in a list's line.
        self.compiled("language A\nmessage\ntext A\n|\\x7F\\x80\\x1f\\n" + 50 * "x" + "\\n")
        self.assertEqual(self.plexmsg("list", "out"), "out: 1 languages, 1 messages\nlanguage 0 A\n"
                         f"message 0 A 56 \"\\x7F\x80\\x1F\\n{49 * 'x'}\"...\n")
        self.assertEqual(self.plexmsg("show", "out", "0"), f"\x7F\x80\x1F\n{50 * 'x'}\n")

    def testFallBackAlongTheChain(self):
        names = ("English/ANSI", "French/RIP", "French/ANSI", "English/RIP", "French/X", "German/RIP", "German/X")
        source = "".join(f"language {name}\n" for name in names[:4])
        for i, have in enumerate(((0, 1, 2, 3), (0, 2, 3), (0, 3), (0,))):
            source += "message\n" + "".join(f"text {names[lang]}\n|{i}{names[lang]}\n" for lang in have)
        self.compiled(source)
        for number, asked, found in ((0, 1, 1), (1, 1, 2), (2, 1, 3), (3, 1, 0), (2, 2, 0), (3, 3, 0), (1, 4, 2),
                                     (2, 4, 0), (0, 5, 3), (3, 5, 0), (0, 6, 0)):
            note = f"plexmsg: no text in {names[asked]}, this is {names[found]}\n" if asked != found else ""
            self.assertEqual(self.plexmsg("show", "-l", names[asked], "out", str(number)),
                             f"{number}{names[found]}\n{note}")

    def testWhatCannotBeRead(self):
        def patch(at, kind, number):
            new = struct.pack("<" + kind, number).decode("latin-1")
            return FILE[:at] + new + FILE[at + len(new):]
        variables, big = 'CANNOT READ "f.mcv" VARIABLES', 2**31 - 1
        read = "CANNOT READ MESSAGE NUMBER 0 (LANGUAGE 0) IN f.mcv"
        for number, text, why in (
                (1, FILE, "CANNOT READ MESSAGE NUMBER 1 (LANGUAGE 0) IN f.mcv"),
                (4, FILE, "MESSAGE NUMBER 4 OUT OF RANGE IN f.mcv"),
                (0, FILE[:15], variables),
                *((0, patch(TRAILER + at, kind, n), variables)
                  for at, kind, n in ((0, "i", -1), (12, "h", 0), (14, "h", -1))),
                (0, patch(TRAILER + 8, "i", -1), 'CANNOT READ "f.mcv" POINTER ARRAY'),
                (0, patch(TRAILER + 4, "i", big), 'CANNOT READ "f.mcv" LENGTH TABLE'),
                (0, patch(LOCATIONS, "i", -9), "CANNOT SEEK MESSAGE NUMBER 0 (LANGUAGE 0) IN f.mcv\n"),
                (0, patch(LOCATIONS, "i", TRAILER), read),
                # With one language a text goes to where the next one begins.
                (0, patch(TRAILER + 12, "h", 1), None),
                (1, patch(TRAILER + 12, "h", 1), "CANNOT READ MESSAGE NUMBER 1 (LANGUAGE 0) IN f.mcv"),
                (0, patch(LOCATIONS + 4, "i", -1).replace("\2\0\4\0", "\1\0\4\0"), read),  # its end before its begin
                (0, patch(LOCATIONS + 4, "i", big).replace("\2\0\4\0", "\1\0\4\0"), None),
                (0, "x\0" "A\0A\0" + 99999 * "\0" + struct.pack("<3i2h", 2, 0, 6, 2, 16384).decode("latin-1"),
                 'TOO MANY LANGUAGES (2) & MESSAGES (16384) IN "f.mcv"')):
            spew("f.mcv", text)
            said = f"plexmsg: {why}\n1" if why else TEXTS[0][:-1] + "\n"
            self.assertEqual(self.plexmsg("show", "f.mcv", str(number)), said)
        long = 79 * "x"
        for path, name, found in (("/none", "a", "/none/a"), ("/none/", "a", "/none/a"), ("c:", "a", "c:a"),
                                  ("/none", "d/a", "d/a"), ("/none", "c:a", "c:a"), ("/none", "cc:a", "/none/cc:a"),
                                  (long + "yy", "a", long + "/a")):
            self.assertEqual(self.plexmsg("list", name, path=path), f"plexmsg: CANNOT FIND \"{found}\"\n1")

    def testSourceErrors(self):
        self.assertEqual(self.compiled(
            "|x\nlanguage 1234567890123456\nlanguage A\nlanguage a\nlanguage B\nmessage X\ntext B\n|x\nlanguage C\n"
            "message 0 a-b\ntext A\nmessage 1x X y\ntext A\n|\\q\\x0g\n|\\x00\0\ntext A\n|x\ntext C\nhello\n|x\n"
            "message 32767\ntext B\n|" + 65535 * "x"), """\
s:1: this line belongs to no text
s:2: a language has a name of 1 to 15 bytes
s:4: there is a language "a" already
s:6: this message has no text in the default language
s:9: languages come before the first message
s:10: "a-b" is not a name: letters, digits and "_", no digit first
s:10: message 0 stands in line 6 already
s:11: this text has no lines
s:12: "1x" is not a message number
s:12: there is a message "X" already
s:12: "y" is more than a number and a name
s:14: unknown: \\q
s:14: \\x takes two hexadecimal digits, not 00
s:15: \\x takes two hexadecimal digits, not 00
s:15: a text cannot hold a zero byte
s:16: message 1 has a text in A already
s:18: there is no language "C"
s:19: not a language, a message, a text, or a line of a text
s:21: message numbers go up to 32766
s:22: a text belongs to a message
s:22: this text is longer than 65534 bytes
1""")
        many = [f"language English{i}\n" for i in range(32768)]
        for source, said in (("language A\nlanguage B\nmessage 16383\ntext A\n|x\n",
                              "s:5: 2 languages times 16384 messages are more than 32767\n1"),
                             ("", "s:0: there is no language\n1"),
                             ("language A\nmessage class\ntext A\n|x\n", 's:2: "class" is a word of C++ itself\n1'),
                             ("language 123456789012345\nmessage _a9Zz\ntext 1\n|x\n", 's:3: there is no language "1"\n'
                              "s:2: this message has no text in the default language\n1"),
                             ("".join(many), "s:32768: 32768 languages are more than 32767\n1"),
                             ("language A\nmessage zA_9\ntext A\n|" + 65535 * "x", ""),
                             ("".join(many[:-1]) + "message\ntext English0\n|x\n", "")):
            self.assertEqual(self.compiled(source), said)
            self.assertEqual(os.path.exists("out"), not said)
        full = self.popen("sh", "-c", f"{BUILD}/plexmsg list out >/dev/full")  # long, but done within patience
        self.assertEqual(self.ended(full), (1, "", "plexmsg: standard output: No space left on device\n"))

    def testOddLanguages(self):
        names = "A\x1B[2J\0b\0a\x1B[2J\0B\0" + 20 * "l" + "\0"
        tables = struct.pack("<2i5H3i2h", 0, 10, 2, 2, 2, 2, 2, 10, 18 + len(names), 10 + len(names), 5, 1)
        spew("odd", "0\0" "1\0" "2\0" "3\0" "4\0" + names + tables.decode("latin-1"))
        self.assertEqual(self.plexmsg("list", "odd"), """\
odd: 5 languages, 1 messages
language 0 A\\x1B[2J
language 1 b (never found)
language 2 a\\x1B[2J (never found)
language 3 B
language 4 lllllllllllllll (never found)
message 0 A\\x1B[2J 2 "0"
message 0 B 2 "3"
""")

    def testWritesWhereItIsTold(self):
        os.mkdir("d")
        spew("kept", "old", 0o640)
        for link, to in (("link", "kept"), ("d/dangling", "../new"), ("far", f"{self.home}/there")):
            os.symlink(to, link)
        source = "\xEF\xBB\xBFlanguage A\r\nmessage\n text A\n\t|x\n"  # a mark, blanks
        for out, file in ((250 * "n",) * 2, ("kept",) * 2, ("link", "kept"), ("d/dangling", "new"),
                          ("far", "there")):
            self.assertEqual(self.compiled(source, "s", out), "")
            self.assertEqual(self.plexmsg("show", "./" + out, "0"), "x\n")
            mode = os.lstat(file).st_mode
            self.assertEqual((stat.S_ISREG(mode), stat.S_IMODE(mode)), (True, 0o640 if file == "kept" else 0o644))
        self.assertTrue(os.path.islink("link"))
        self.assertEqual(self.compiled(source, "s", "/dev/stdout"), slurp("kept"))
        for names, source, out, same in (("n", "s", "./s", "./s"), ("s", "s", "out", "s"), ("out", "s", "out", "out")):
            self.assertEqual(self.plexmsg("compile", "-n", names, source, out),
                             f"plexmsg: {same} cannot be two files at once\n1")
        for source, out, why in (("none", "out", "read none: No such file or directory"),
                                 ("s", "none/out", "write none/out: No such file or directory"),
                                 (".", "out", "read .: Is a directory"), ("s", "s/out", "write s/out: Not a directory"),
                                 ("s", "/dev/full", "write /dev/full: No space left on device")):
            self.assertEqual(self.plexmsg("compile", source, out), f"plexmsg: cannot {why}\n1")
        self.assertFalse(os.path.exists("out"))
        self.assertFalse([name for name in os.listdir() if name.startswith(".plex")])
