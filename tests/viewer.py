"""plexview and conshow on terminals, which tmux keeps"""
import ctypes
import fcntl
import os
import re
import signal
import socket
import struct
import termios

from blackbox import BUILD, PATIENCE, DaemonSuite, Screen, libc, slurp, spew

PLEXVIEW, CONSHOW = f"{BUILD}/plexview", f"{BUILD}/conshow"
CLONE_NEWIPC, CLONE_NEWUSER = 0x08000000, 0x10000000
IPC_CREAT, IPC_RMID = 0o1000, 0
ROW, CURSOR, IMAGE = 160, 4026, 4029  # bytes of a row; where row, column and shape of the cursor stand; all bytes
libc.shmat.restype = ctypes.c_void_p


class Viewer(DaemonSuite):
    def setUp(self):
        super().setUp()
        uid = os.getuid()
        # The user's segment is one for all programs: a name space of our own has another.
        if libc.unshare(CLONE_NEWIPC) and libc.unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0:
            with open("/proc/self/uid_map", "w", encoding="ascii") as file:
                file.write(f"{uid} {uid} 1")
        self.key = uid + 1
        if re.search(rf"^ +{self.key} .*", slurp("/proc/sysvipc/shm"), re.M):
            self.skipTest("a program of this user has its screen in the shared segment")
        self.addCleanup(self.segment)

    def environment(self, more):
        return super().environment({"BBSCONFIG": "/dev/null", "LC_ALL": "C.UTF-8", "TERM": "xterm"} | dict(more))

    def segment(self, size=0):
        """The user's segment, removed, and made anew when a size is given"""
        libc.shmctl(libc.shmget(self.key, 0, 0), IPC_RMID, None)
        found = libc.shmget(self.key, size, IPC_CREAT | 0o600) if size else -1
        return (ctypes.c_ubyte * size).from_address(libc.shmat(found, None, 0)) if found >= 0 else None

    def told(self, want, command, **env):
        """What a program says on its terminal before it gives up"""
        pid, terminal = self.onterminal(f"exec {command}", **env)
        self.assertEqual(self.over(terminal), f"{command.split()[0].rpartition('/')[2]}: {want}\r\n")
        self.assertEqual(os.waitpid(pid, 0)[1], 1 << 8)

    def testOneVisit(self):
        """The test as the program: what it puts into the segment is shown, keys come as words"""
        image = self.segment(IMAGE)
        image[:4000] = 2000 * b" \x07"
        listening = socket.socket(socket.AF_UNIX)
        listening.settimeout(PATIENCE)
        listening.bind("plexhost.console")
        self.told("no program shows its console in .", PLEXVIEW)
        listening.listen(0)
        with socket.socket(socket.AF_UNIX) as before:
            before.connect("plexhost.console")
            self.told("the program in . does not answer", PLEXVIEW)
        listening.accept()
        viewer = Screen("v", PLEXVIEW, 90, 27)
        link = listening.accept()[0]
        link.settimeout(PATIENCE)
        pid = struct.unpack("i", link.recv(4))[0]
        viewer.shows(re.escape("\x1b[7m plexview: Ctrl+] leaves "), "-e")
        image[ROW + 4:ROW + 18] = b"m\x1Eo\x1Eo\x1En\x1E\xDB\x1Eb\x84i\xF4"  # no flag says so
        viewer.shows(re.escape("\n  \x1b[93m\x1b[44mmoon█\x1b[5m\x1b[31m\x1b[40mb\x1b[47mi"), "-e")

        def cursor():
            return viewer.tmux("display", "-p", "-t", "v", "#{cursor_x},#{cursor_y},#{cursor_flag}").strip()
        for place, want in (((4, 6, 1), "6,4,1"), ((25, 6, 1), "0,0,0"), ((24, 79, 1), "79,24,1"),
                            ((4, 80, 1), "0,0,0"), ((1, 2, 0), "0,0,0")):
            image[CURSOR:] = bytes(place)
            self.eventually(lambda want=want: cursor() == want, cursor)
        image[4000 + 25] = 1
        self.eventually(lambda: image[4000 + 25] == 0, "what is asked for is not drawn")
        text = " ☺☻♥♦♣♠•◘○◙♂♀♪♫☼►◄↕‼¶§▬↨↑↓→←∟↔▲▼" + bytes(range(32, 127)).decode() + "⌂"
        text += bytes(range(128, 255)).decode("cp437")
        for row, first in enumerate(range(1, 255, 64), 8):  # all characters
            chars = range(first, min(first + 64, 255))
            image[row * ROW:row * ROW + 2 * len(chars)] = b"".join(bytes((char, 7)) for char in chars)
            viewer.shows(re.escape(text[first:first + 64]))
        # What is sent, and its key code; 0 for a key that has none, of which no part is typed.
        keys = [(sent, 0) for sent in ("\x1b[7^", "\x1b[7$", "\x1bOa", "\x1b[[Z", "\x1b\x1b[A", "\x1b\x1bOA",
                                       "\x1b[99;9~", "\x1b[1;4A", "♥€", "\x1b[")]  # the last one is cut off by a key
        keys += [("\x1bOP", 0x3B00), ("é", 0x82), ("\x7f", 8), ("\b", 8), ("\t", 9), ("\x1b[Z", 0x0F00), ("\r", 13),
                 ("\x1b", 27), (";", 0x3B), ("\x03", 3), ("Q", 0x51)]
        rows = (0x78, "1234567890"), (0x10, "qwertyuiop"), (0x1E, "asdfghjkl"), (0x2C, "zxcvbnm")
        keys += [("\x1b" + key, first + i << 8) for first, row in rows for i, key in enumerate(row)]
        specials = [(end, (0x3B + i, 0x54 + i, 0x68 + i, 0x5E + i)) for i, end in enumerate(
            ("1P", "1Q", "1R", "1S", "15~", "17~", "18~", "19~", "20~", "21~"))]
        specials += [(end, (plain, plain, 0, ctrl)) for end, plain, ctrl in (
            ("2~", 0x52, 0x52), ("3~", 0x53, 0x53), ("1H", 0x47, 0x77), ("1A", 0x48, 0x8D), ("5~", 0x49, 0x84),
            ("1D", 0x4B, 0x73), ("1C", 0x4D, 0x74), ("1F", 0x4F, 0x75), ("1B", 0x50, 0x91), ("6~", 0x51, 0x76))]
        for end, codes in specials:  # by itself, with Shift, Alt, Ctrl
            own = {"1H": "[1~", "1F": "[4~"}.get(end) or ("O" + end[1] if end[1].isalpha() else "[" + end)
            sent = ["\x1b" + own, *(f"\x1b[{end[:-1]};{modifier}{end[-1]}" for modifier in (2, 3, 5))]
            keys += [(one, code << 8) for one, code in zip(sent, codes)]
        viewer.keys("-l", "".join(sent for sent, _ in keys))
        for sent, code in keys:
            if code:
                self.assertEqual(link.recv(4), struct.pack("i", code), repr(sent))
        pasted = "".join(chr(ord("a") + i % 26) for i in range(1200))
        viewer.tmux("set-buffer", pasted)
        viewer.tmux("paste-buffer", "-t", "v")
        seen = []

        def full():  # what the link holds stays
            seen.append(fcntl.ioctl(link, termios.FIONREAD, bytes(4)))
            return seen[-1] != bytes(4) and seen[-100:] == 100 * seen[-1:]
        self.eventually(full)
        came = b"".join(link.recv(4) for _ in pasted)
        self.assertEqual(came, struct.pack("1200i", *map(ord, pasted)))
        viewer.keys("C-]")
        self.assertEqual(link.recv(4), struct.pack("i", -1))
        self.assertNotIn("moon", viewer.shows("status=0"))  # the terminal is given back
        self.assertEqual(cursor()[-1], "1")
        self.assertFalse(os.path.exists(f"/proc/{pid}"))

    def testViewersComeAndGo(self):
        spew("p.ans", "\x1b[2;3Hmoon")
        program = self.popen("bash", "-c", f"exec {CONSHOW} -n plexhost <(cat p.ans)")  # a pipe can be read only once
        self.assertEqual(program.stdout.readline(), b"conshow: plexview in this directory shows this console.\n")
        first = Screen("first", f"{PLEXVIEW} {self.home}")
        first.shows("moon")
        self.assertRegex(slurp("/proc/sysvipc/shm"), rf"\n +{self.key} +\d+ +644 +{IMAGE} ")
        first.keys("F1")
        first.shows("Key 0x3B00")
        second = Screen("second", f"sh -c 'echo $$ > pid; exec {PLEXVIEW}'")
        second.keys("s")
        second.shows('Key 0x0073 "s"')
        self.assertNotIn("ended", first.shows("status=0"))  # the one before has to go, in silence
        os.kill(int(slurp("pid")), signal.SIGTERM)
        self.assertNotIn("Key", second.shows("status=143"))  # the terminal is given back
        third = Screen("third", PLEXVIEW, 80, 24)
        third.shows("This terminal is 80 x 24;\nthe console needs 80 x 25.")
        third.tmux("resize-window", "-t", "third", "-x", "80", "-y", "25")
        third.shows(r"\n.*leaves.*\n\Z")  # in the last row, and only for a while
        third.shows("moon")
        third.shows("Enter: next picture")
        third.tmux("resize-window", "-t", "third", "-x", "79", "-y", "25")
        third.shows("This terminal is 79 x 25")
        program.kill()
        third.shows("plexview: the program has ended\nstatus=1")
        program = self.popen(CONSHOW, "-n", "plexhost")  # what was left behind is no obstacle
        program.stdout.readline()
        fourth = Screen("fourth", PLEXVIEW)
        fourth.shows("tries a console out")
        fourth.keys("F10")
        fourth.shows("This is what a catastrophe looks like.")
        fourth.shows("status=0")
        self.assertEqual(program.wait(PATIENCE), 90)
        self.assertFalse(os.path.exists("plexhost.console"))

    def testSaysWhatIsMissing(self):
        """Without a segment, with one that is too small, with a good one"""
        for size, want, command, *env in (
                (0, "no program of this user shows a console", PLEXVIEW),
                (100, "this user's shared memory is too small for a screen", PLEXVIEW),
                (100, f"the shared memory with the key {self.key} is too small for a screen; "
                 f"remove it with: ipcrm -M {self.key}", f"{CONSHOW} -n plexhost"),
                (IMAGE, "no program shows its console in .", PLEXVIEW),
                (IMAGE, "terminal type nothing is not known", PLEXVIEW, ("TERM", "nothing")),
                (0, "nodir: No such file or directory", f"{PLEXVIEW} nodir"),
                (0, "BBSDISP=xwindows is no console: nullcon, xwindow or unixcon", CONSHOW, ("BBSDISP", "xwindows")),
                (0, "nodir: No such file or directory", f"{CONSHOW} nodir"),
                (0, "..: Is a directory", f"{CONSHOW} ..")):
            self.segment(size)
            self.told(want, command, **dict(env))
        self.assertFalse(os.path.exists("plexhost.console"))
        self.assertEqual(self.ended(self.popen(PLEXVIEW)),
                         (1, "", "plexview: standard input and output must be a terminal\n"))
        spew("p.ans", "x")
        self.assertEqual(self.ended(self.popen(CONSHOW, "p.ans", env={"BBSDISP": "nullcon"})), (0, "", ""))
