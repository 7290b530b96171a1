"""conshow in a window of a real X server: every pixel, keys, what goes wrong"""
import ctypes
import random
import re
import struct
import subprocess

from blackbox import BUILD, PATIENCE, SOURCE, DaemonSuite, slurp, spew

CONSHOW = f"{BUILD}/conshow"
COLORS = bytes.fromhex("000000 8B0000 008B00 8B8B00 00008B 8B008B 23238B A8A8A8"
                       "545454 FF0000 00EE00 EEEE00 0000EE EE00EE 00FFFF FFFFFF")  # blue first
COLORS = [COLORS[i:i + 3] for i in range(0, 48, 3)]


def filled(color, bar=None, width=8, height=16):
    """A cell of one colour, perhaps with a cursor of another"""
    lines = [[COLORS[color]] * width] * height
    return lines if bar is None else lines[:11] + 2 * [[COLORS[bar]] * width] + lines[13:]


class XServer(DaemonSuite):
    def setUp(self):
        super().setUp()
        self.display = ""
        while not self.display:  # servers that start at the same moment may choose the same number
            self.server = self.popen("Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-noreset", "-fbdir", ".",
                                     "-screen", "0", "700x450x24", "-screen", "1", "9x9x8", "-fp",
                                     f"/usr/share/fonts/X11/misc,{SOURCE}/fonts,built-ins", stderr=subprocess.DEVNULL)
            self.display = self.server.stdout.readline().decode().strip()

    def environment(self, more):
        own = {"DISPLAY": f":{self.display}", "BBSCONFIG": "/dev/null", "BBSDISP": "xwindow", "BBSLOG": "log"}
        return super().environment(own | dict(more))

    def show(self, *pictures, **env):
        for name, picture in zip("123", pictures):
            spew(name, picture)
        self.shown = self.popen(CONSHOW, *"123"[:len(pictures)], env=env)

    def refused(self, said, **env):
        self.show(**env)
        self.assertEqual(self.ended(self.shown), (1, "", said))

    def xdo(self, *args):
        self.assertEqual(self.ended(self.popen("xdotool", *args))[::2], (0, ""))

    def cell(self, row, col, width=8, height=16, descent=4):
        """The pixels of a cell, line by line; the window's border is 4 wide"""
        with open("Xvfb_screen0", "rb") as file:
            dump = file.read()
        head = struct.unpack(">20I", dump[:80])
        first = head[0] + head[19] * 12 + (row * height + 4 + descent) * head[12] + (col * width + 4) * 4
        lines = [dump[first + y * head[12]:][:4 * width] for y in range(height)]
        return [[line[4 * x:4 * x + 3] for x in range(width)] for line in lines]

    def becomes(self, want, *where, **font):
        self.eventually(lambda: self.cell(*where, **font) == want, lambda: f"{where} is {self.cell(*where, **font)}")

    def testEveryCell(self):
        # What the letters look like is learned from a picture of all of them, grey on black.
        glyphs = "".join(map(chr, range(32, 256)))
        letters = "".join(f"\33[{i + 1};1H{glyphs[80 * i:80 * i + 80]}" for i in range(3))
        dice = random.Random(5)
        attrs, picture = dice.randbytes(24 * 80), ""
        # In every other row runs of one colour
        cells = [[(dice.choice(glyphs), attrs[80 * row + i // (1 + row % 2 * 8)]) for i in range(80)]
                 for row in range(24)]
        for number, row in enumerate(cells):
            picture += f"\33[{number + 1};1H"
            for char, attr in row:
                fg, bg = ("04261537"[attr >> shift & 7] for shift in (0, 4))
                picture += f"\33[0;{'1;' * (attr >> 3 & 1)}{'5;' * (attr >> 7)}3{fg};4{bg}m{char}"
        self.show(letters + "\33[24;80H", picture + "\33[0;44m\33[11;5H  \33[11;6H", "\33[25;8H")
        self.becomes(filled(7), 2, 0xDB - 32 - 160)
        font = [[[dot == COLORS[7] for dot in line] for line in self.cell(i // 80, i % 80)]
                for i in range(len(glyphs))]
        self.assertGreater(len(set(map(str, font))), 200)
        self.xdo("key", "Return")
        cells[10][4] = cells[10][5] = (" ", 0x10)
        self.becomes(filled(1, bar=6), 10, 5)  # the cursor, in 7 less the background
        for number, row in enumerate(cells):
            for column, (char, attr) in enumerate(row):
                if (number, column) != (10, 5):
                    colors = COLORS[attr >> 4 & 7], COLORS[attr & 15]
                    self.becomes([[colors[dot] for dot in line] for line in font[ord(char) - 32]], number, column)
        # Unmapped, the window is gone; mapped again it is empty until it is exposed.
        self.xdo("search", "--name", "conshow", "windowunmap", "--sync")
        self.becomes(filled(0), 10, 4)
        self.xdo("search", "--name", "conshow", "windowmap", "--sync")
        self.becomes(filled(1), 10, 4)
        self.xdo("key", "Return")
        self.becomes(filled(7, bar=0), 24, 7)  # along the row, from where its text left it
        self.becomes(filled(7), 24, 0)
        got = self.ended(self.popen("xprop", "-name", "conshow", "-notype"))[1]
        for line in ('WM_CLASS = "conshow", "conshow"', 'WM_NAME = "conshow"', 'WM_ICON_NAME = "conshow"',
                     "program specified location: 0, 0", "program specified size: 640 by 404",
                     "minimum size: 640 by 404", "accepts input or input focus: True",
                     "Initial state is Normal State.", "bitmap id # to use for icon"):
            self.assertIn(line, got)
        self.shown.terminate()
        self.assertEqual(self.ended(self.shown), (0, "", ""))

    def testFontKeysAndTheEnd(self):
        x11, few = ctypes.CDLL("libX11.so.6"), f":{self.display}.1"  # a screen whose colours are all taken
        x11.XOpenDisplay.restype = ctypes.c_void_p
        display = ctypes.c_void_p(x11.XOpenDisplay(few.encode()))
        for n in (128, 64, 32, 16, 8, 4, 2, 1, 1):
            x11.XAllocColorCells(display, x11.XDefaultColormap(display, 1), 0, None, 0, (ctypes.c_ulong * n)(), n)
        self.refused("Unable to use color 'blue4'\n", DISPLAY=few)
        self.refused("conshow: Unable to load font no-such-font.\nDisplay open failed. Exiting.\n",
                     BBSFONT="no-such-font")
        # Those that give nothing stand in between; Escape ends.
        keys = {"a": 0x61, "shift+a": 0x41, "ctrl+a": 1, "F11": None, "alt+5": 0x7C00, "shift+Tab": 0x0F00,
                "ctrl+Home": 0x7700, "alt+F10": 0x7100, "Escape": 27}
        self.show("\33[2;72H\33[44m ", BBSFONT="fixed")  # 6 by 13
        self.becomes(filled(1, width=6, height=13), 1, 71, width=6, height=13, descent=2)
        self.xdo("key", *keys)
        self.assertEqual(self.ended(self.shown), (0, "", ""))
        came = [int(key) for key in re.findall(r"gkdsp: key=(\d+)\n", slurp("log"))]
        self.assertEqual(came, [code for code in keys.values() if code])
        self.assertEqual(slurp("log").count("altnum = 0 (-1 -1 -1)\n"), 2)  # Alt was let go
        self.show("\333")
        self.becomes(filled(7), 0, 0)
        self.server.terminate()
        self.server.wait(PATIENCE)
        self.assertEqual(self.ended(self.shown)[0], 1)
        self.refused("Display open failed. Exiting.\n")
        self.assertEqual(slurp("log"), f"conshow: cannot connect to X server :{self.display}. Exiting.\n")
