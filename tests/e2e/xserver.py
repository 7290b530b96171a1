#!/usr/bin/env python3
"""conshow in a window of a real X server: every pixel, keys, what goes wrong.

    xserver.py CONSHOW FONTS
"""
import ctypes, os, random, re, signal, struct, subprocess, sys, tempfile, time, unittest

CONSHOW, FONTS = map(os.path.abspath, sys.argv[1:3])
LIMIT = 20  # seconds that anything may take
COLORS = bytes.fromhex("000000 8B0000 008B00 8B8B00 00008B 8B008B 23238B A8A8A8"
                       "545454 FF0000 00EE00 EEEE00 0000EE EE00EE 00FFFF FFFFFF")  # blue first
COLORS = [COLORS[i:i + 3] for i in range(0, 48, 3)]


def start(*argv, **more):
    """A process that ends with this one, in whatever way that ends."""
    return subprocess.Popen(argv, stdin=subprocess.DEVNULL, text=True, stdout=subprocess.PIPE,
                            preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM), **more)


class XServer(unittest.TestCase):
    def setUp(self):
        home = tempfile.TemporaryDirectory(prefix="plextest.")
        self.addCleanup(home.cleanup)
        self.home = home.name
        self.serve("700x450x24")

    def serve(self, screen):
        number = ""
        for _ in range(5):  # servers that start at the same moment may choose the same number
            self.server = start("Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-noreset",
                                "-screen", "0", screen, "-fbdir", self.home,
                                "-fp", "/usr/share/fonts/X11/misc,%s,built-ins" % FONTS,
                                stderr=subprocess.DEVNULL)
            self.addCleanup(self.stop, self.server)
            number = self.server.stdout.readline().strip()
            if number:
                break
        self.env = {**os.environ, "DISPLAY": ":" + number, "BBSCONFIG": "/dev/null",
                    "BBSDISP": "xwindow", "BBSLOG": self.home + "/log"}
        self.env.pop("BBSFONT", None)

    @staticmethod
    def stop(process):
        process.terminate()
        process.communicate(timeout=LIMIT)
        return process.returncode

    def show(self, *pictures):
        files = []
        for i, picture in enumerate(pictures):
            files.append("%s/%d.ans" % (self.home, i))
            with open(files[-1], "wb") as file:
                file.write(picture)
        self.shown = start(CONSHOW, *files, env=self.env, stderr=subprocess.PIPE)
        self.addCleanup(self.stop, self.shown)

    def run_in(self, *argv):
        return subprocess.run(argv, env=self.env, stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=LIMIT)

    def xdo(self, *args):
        done = self.run_in("xdotool", *args)
        self.assertEqual(done.returncode, 0, done.stderr)

    def cell(self, row, col, width=8, height=16, descent=4):
        """The pixels of a cell, line by line; the window's border is 4 wide."""
        with open(self.home + "/Xvfb_screen0", "rb") as file:
            dump = file.read()
        head = struct.unpack(">20I", dump[:80])
        first = head[0] + head[19] * 12 + (row * height + 4 + descent) * head[12] + (col * width + 4) * 4
        lines = [dump[first + y * head[12]:][:4 * width] for y in range(height)]
        return [[line[4 * x:4 * x + 3] for x in range(width)] for line in lines]

    def becomes(self, want, *where, **font):
        end = time.monotonic() + LIMIT
        while (got := self.cell(*where, **font)) != want:
            if time.monotonic() > end:
                self.assertEqual(got, want, "the cell at %s" % (where,))
            time.sleep(0.01)

    @staticmethod
    def filled(color, width=8, height=16):
        return [[COLORS[color]] * width] * height

    def test_every_cell(self):
        # What the letters look like is learned from a picture of all of them, grey on black.
        glyphs = bytes(range(32, 256))
        letters = b"".join(b"\33[%d;1H" % (i + 1) + glyphs[80 * i:80 * i + 80] for i in range(3))
        dice = random.Random(5)
        cells = [[(dice.choice(glyphs), dice.randrange(256)) for _ in range(80)] for _ in range(24)]
        for row in cells[3:24:2]:  # and runs of one colour
            row[:] = [(char, row[i // 9][1]) for i, (char, _) in enumerate(row)]
        ansi = "04261537"
        picture = b""
        for number, row in enumerate(cells):
            picture += b"\33[%d;1H" % (number + 1)
            for char, attr in row:
                picture += b"\33[0;%s%s3%s;4%sm%c" % (b"1;" * (attr >> 3 & 1), b"5;" * (attr >> 7),
                                                      ansi[attr & 7].encode(), ansi[attr >> 4 & 7].encode(), char)
        self.show(letters + b"\33[24;80H", picture + b"\33[0;44m\33[11;5H  \33[11;6H")
        self.becomes(self.filled(7), 2, 0xDB - 32 - 160)
        font = [[[dot == COLORS[7] for dot in line] for line in self.cell(i // 80, i % 80)]
                for i in range(len(glyphs))]
        self.assertGreater(len(set(map(str, font))), 200)
        self.xdo("key", "Return")
        cells[10][4] = cells[10][5] = (32, 0x10)
        bar = self.filled(1)
        bar[11:13] = self.filled(6)[:2]  # the cursor, in 7 less the background
        self.becomes(bar, 10, 5)
        for number, row in enumerate(cells):
            for column, (char, attr) in enumerate(row):
                ink, paper = COLORS[attr & 15], COLORS[attr >> 4 & 7]
                want = [[ink if dot else paper for dot in line] for line in font[char - 32]]
                if (number, column) != (10, 5):
                    self.becomes(want, number, column)
        # Unmapped, the window is gone; mapped again it is empty until it is exposed.
        self.xdo("search", "--name", "conshow", "windowunmap", "--sync")
        self.becomes(self.filled(0), 10, 4)
        self.xdo("search", "--name", "conshow", "windowmap", "--sync")
        self.becomes(self.filled(1), 10, 4)
        self.assertEqual(self.stop(self.shown), 0)

    def test_cursor_and_properties(self):
        self.show(b"\33[25;8H")  # along the row, from where its text left it
        bar = self.filled(7)
        bar[11:13] = self.filled(0)[:2]
        self.becomes(bar, 24, 7)
        self.becomes(self.filled(7), 24, 0)
        got = self.run_in("xprop", "-name", "conshow", "-notype").stdout
        for line in ('WM_CLASS = "conshow", "conshow"', 'WM_NAME = "conshow"',
                     'WM_ICON_NAME = "conshow"', "program specified location: 0, 0",
                     "program specified size: 640 by 404", "minimum size: 640 by 404",
                     "accepts input or input focus: True", "Initial state is Normal State.",
                     "bitmap id # to use for icon"):
            self.assertIn(line, got)

    def refused(self, said):
        none = self.run_in(CONSHOW)
        self.assertEqual((none.stderr, none.returncode), (said, 1))

    def test_fonts_and_colours(self):
        self.env["BBSFONT"] = "fixed"  # 6 by 13
        self.show(b"\33[2;72H\33[44m ")
        self.becomes(self.filled(1, 6, 13), 1, 71, width=6, height=13, descent=2)
        self.env["BBSFONT"] = "no-such-font"
        self.refused("conshow: Unable to load font no-such-font.\nDisplay open failed. Exiting.\n")
        # A server whose colours are all taken.
        self.serve("700x450x8")
        x11 = ctypes.CDLL("libX11.so.6")
        x11.XOpenDisplay.restype = ctypes.c_void_p
        display = ctypes.c_void_p(x11.XOpenDisplay(self.env["DISPLAY"].encode()))
        for n in (128, 64, 32, 16, 8, 4, 2, 1, 1):
            x11.XAllocColorCells(display, x11.XDefaultColormap(display, 0), 0, None, 0, (ctypes.c_ulong * n)(), n)
        x11.XSync(display, 0)
        self.refused("Unable to use color 'blue4'\n")

    def test_keys(self):
        # Those that give nothing stand in between; Escape ends.
        keys = {"a": 0x61, "shift+a": 0x41, "ctrl+a": 1, "alt+a": 0x1E00, "F11": None, "5": 0x35,
                "alt+5": 0x7C00, "semicolon": 0x3B, "Tab": 9, "shift+Tab": 0x0F00, "BackSpace": 8,
                "ctrl+1": None, "Up": 0x4800, "ctrl+Home": 0x7700, "Delete": 0x5300, "F1": 0x3B00,
                "shift+F9": 0x5C00, "alt+F10": 0x7100, "space": 0x20, "Escape": 27}
        self.show(b"\333")
        self.becomes(self.filled(7), 0, 0)
        self.xdo("key", *keys)
        self.shown.communicate(timeout=LIMIT)
        self.assertEqual(self.shown.returncode, 0)
        with open(self.home + "/log", encoding="ascii") as log:
            lines = log.read()
        came = [int(key) for key in re.findall(r"gkdsp: key=(\d+)\n", lines)]
        self.assertEqual(came, [code for code in keys.values() if code])
        self.assertEqual(lines.count("altnum = 0 (-1 -1 -1)\n"), 3)  # Alt was let go

    def test_ends_with_its_server(self):
        self.show(b"\333")
        self.becomes(self.filled(7), 0, 0)
        self.stop(self.server)
        self.shown.communicate(timeout=LIMIT)
        self.assertEqual(self.shown.returncode, 1)
        self.refused("Display open failed. Exiting.\n")
        with open(self.home + "/log", encoding="ascii") as log:
            self.assertEqual(log.read(), "conshow: cannot connect to X server %s. Exiting.\n" % self.env["DISPLAY"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
