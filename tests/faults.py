"""Daemons whose system calls fail: what becomes of them, what their host is told"""
import errno
import os
import signal
import socket

from blackbox import (BUILD, ENDED, FAILED, RUN, STARTED, DaemonSuite, Terminal, protocol,
                      readable, slurp, status)


class Faults(DaemonSuite):
    file = f"{BUILD}/tests/vosterd_faults"

    def plan(self, faults, begin=True, **env):
        (self.begin if begin else self.start)("-d", env={"BBSLOG": "file", "FAULTS": faults} | env)

    def testAtStart(self):
        endpoint, accept = "Unable to create listen socket.\n", "Unable to accept connection from client.\n"
        for faults, code, err, log in (
                ("fcntl:1:37", 1, "fcntl: 37 (No locks available)\nhalvrond is already running.\n", ""),
                ("sigaction:2:22", 3, "Unable to install SIGCHLD handler.\n", ""),
                ("sigaction:3:22", 4, "Unable to install SIGTERM handler.\n", ""),
                ("sigaction:4:22", 5, "Unable to install SIGINT handler.\n", ""),
                ("socket:1:24", 1, "pipe: Too many open files\n" + endpoint, ""),
                ("fchmod:1:1", 1, "creat: Operation not permitted\n" + endpoint, ""),
                ("bind:1:28", 1, "creat: No space left on device\n" + endpoint, ""),
                ("listen:1:95", 1, "fattach: Operation not supported\n" + endpoint, ""),
                ("accept:1:24", 2, accept, "I_RECVFD: Too many open files (24)\n"),
                ("accept:1:4", 2, accept, "I_RECVFD: Interrupted system call (4)\n")):
            with self.subTest(faults):
                self.plan(faults, begin=False)
                self.assertEqual(self.wait(), (code, err))
                self.assertEqual(slurp("vosterd.log"), log)
                self.assertTrue(os.path.exists("vosterd.pid"))  # only its end in order removes it
        os.unlink("vosterd.pid")
        self.plan("write:1:28")  # a lock without an id in its file is a lock
        self.assertEqual(self.output(1, "/bin/echo x"), "x\r\n")
        self.assertEqual(slurp("vosterd.pid"), "")

    def deaf(self):
        return bool(int(status(self.daemon.pid, "SigBlk") or "0", 16) >> (signal.SIGCHLD - 1) & 1)

    def course(self, user, line, count, text):
        """What the host hears of a command, in as many pieces, and what stood on its terminal"""
        self.host.request(RUN, user, line.encode())
        heard, terminal = [], None
        for _ in range(count):
            data, fds, _, _ = socket.recv_fds(self.host.link, protocol.RECORD.size, 2)
            heard.append(protocol.RECORD.unpack(data) if len(data) == 12 and not fds else
                         "master" if (data, len(fds)) == (b"\0", 1) else (data, fds))
            terminal = Terminal(fds[0]) if fds else terminal
        # A terminal that nobody ever opened does not hang up: of none but those that show something the end comes.
        shown = terminal and (terminal.drain() if text else readable(terminal, 0) and terminal.more() and terminal.rest)
        return heard, shown or ""

    def testAtALaunch(self):
        ptym, eintr, eacces, eio = ("pty_fork:ptym_open: ", *(os.strerror(e) + "\n" for e in (4, 13, 5)))
        refused, master = [(0, FAILED, 0)], "master"

        def told(user, code=0):
            return [(user, STARTED, 0), master, (user, ENDED, (code & 0xFF) << 8)]
        usual, lost = (told(1), "x\r\n"), "Could not find child (pid="
        for faults, (heard, text), err, log in (
                # No terminal: refused, and from then on no end of a command is told.
                ("open:1:4", (refused, ""), f"ptym_open:open: {eintr}{ptym}{eintr}", ""),
                ("grantpt:1:13", (refused, ""), f"ptym_open:grantpt: {eacces}{ptym}{eacces}", ""),
                ("unlockpt:1:5", (refused, ""), f"ptym_open:unlockpt: {eio}{ptym}{eio}", ""),
                ("ptsname:1:5", (refused, ""), f"ptym_open:ptsname: {eio}{ptym}{eio}", ""),
                ("fork:1:4", (refused, ""), f"pty_fork:fork(): {eintr}", "COMMAND FAILED!\n"),
                # Started, but its terminal cannot be set up: it ends, and that is told.
                ("setsid:1:13", (told(1, -1), ""), f"pty_fork:setsid(): {eacces}", ""),
                ("open:2:4", (told(1, -2), ""), f"pty_fork:ptys_open: {eintr}", ""),
                # By the parent, through the master, and where that fails by the child.
                ("tcsetattr:1:5 tcsetattr:2:5", (told(1, -4), ""), f"pty_fork:tcsetattr: {eio}", ""),
                ("ioctl:1:5 ioctl:2:5", (told(1, -5), ""), f"pty_fork:ioctl(TIOCSWINSZ): {eio}", ""),
                ("tcsetattr:1:5", usual, "", ""),
                ("ioctl:1:5", usual, "", ""),
                ("dup2:1:5", (told(1, -6), ""), f"pty_fork:dup2(STDIN_FILENO): {eio}", ""),
                ("dup2:2:5", (told(1, -7), ""), f"pty_fork:dup2(STDOUT_FILENO): {eio}", ""),
                ("dup2:3:4", (told(1, -8), ""), f"pty_fork:dup2(STDERR_FILENO): {eintr}", ""),
                # Nobody looks at these: the launch goes on.
                ("sigaction:5:22", usual, "", ""),
                ("send:1:11", (told(1)[1:], "x\r\n"), "", ""),
                ("sendmsg:1:109", (told(1)[::2], ""), "",
                 "I_SENDFD: Too many references: cannot splice (109)\n"),
                ("send:2:105", (told(1)[:2], "x\r\n"), "", ""),
                ("malloc:1:12", (told(1)[:2], "x\r\n"), "", lost),  # not in the table
                # Interrupted: repeated.
                ("read:1:4", usual, "", "")):
            with self.subTest(faults):
                self.plan(faults)
                deaf = heard == refused
                self.assertEqual(self.course(1, "/bin/echo x", len(heard), text), (heard, text))
                self.eventually(lambda: self.deaf() == deaf)
                # Three standard ones, log, lock, endpoint, link; a fork that failed leaves a master.
                has = 7 + faults.startswith(("fork", "malloc"))
                self.open_(has)
                self.eventually(lambda: deaf or not self.commands())  # signals of two ends would merge
                on = told(2)[:2] if deaf else told(2)
                self.assertEqual(self.course(2, "/bin/echo on", len(on), "on\r\n"), (on, "on\r\n"))
                self.finish(err=err)
                self.assertIn(log, slurp("vosterd.log"))

    def testARefusalForAHostThatHearsAll(self):
        self.plan("fork:1:4", BBSREAP="all")
        self.assertEqual(self.course(1, "/bin/echo x", 1, ""), ([(0, FAILED, 0)], ""))
        on = [(2, STARTED, 0), "master", (2, ENDED, 0)]
        self.assertEqual(self.course(2, "/bin/echo on", 3, "on\r\n"), (on, "on\r\n"))
        self.finish(err=f"pty_fork:fork(): {os.strerror(4)}\n")

    def testOfTheRequestLoop(self):
        for faults, code in (("read:1:5", 150 + errno.EIO), ("read:1:104", 0)):
            self.plan(faults)
            self.assertEqual(self.host.link.recv(12), b"")
            self.finish(code)

    def testOfTheShutDown(self):
        self.plan("kill:1:1 fcntl:2:37")
        killed = self.run_(1, "/bin/cat")
        self.kill(1)  # fails, but the command is dropped
        cat = self.run_(2, "/bin/cat")
        killed.close()
        self.finish(err="fcntl: 37 (No locks available)\n", stuck=True)
        self.assertEqual(self.over(cat), "")
        os.unlink("vosterd.pid")
        self.plan("kill:1:-2")  # a second ending half-way changes nothing
        cat = self.run_(1, "/bin/cat")
        self.finish()
        self.assertEqual(self.over(cat), "")

    def testOfAnEndingThatIsOvertaken(self):
        self.plan("kill:1:-15")
        cat = self.run_(1, "/bin/cat")
        self.kill(1)
        self.finish(115)  # and no command stays
        cat.close()
        self.plan("kill:1:-17")
        self.endtogether([self.run_(user, "/bin/cat") for user in (1, 2)], "\x01")
        self.assertEqual(self.host.record()[1:], (ENDED, 0))  # the other one waits for a signal
        cat = self.run_(3, "/bin/cat")
        self.host.link.shutdown(socket.SHUT_WR)
        self.assertEqual(self.host.link.recv(12), b"")  # and then it is too late
        self.finish()
        self.assertEqual(self.over(cat), "")
