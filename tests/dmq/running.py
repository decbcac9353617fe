"""Runs dmq for a test; its path is the test's first argument."""

import contextlib
import fcntl
import os
import pty
import re
import select
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest
from pathlib import Path

DMQ, *ARGUMENTS = map(os.path.abspath, sys.argv[1:])
PROJECT = Path(__file__).parents[2]
CHASSIS = ("--load", "examples/chassis.json")
ENV = {**os.environ, "NO_COLOR": "1"}
ENV.pop("DMQ_STORE", None)
SLOW = "DM_SLOW" in os.environ


def dmq(*words, lines=None, stdout=subprocess.PIPE, **env):
    """In a shell when there are lines."""
    if lines is not None:
        words = (*words, "shell")
    return subprocess.run([DMQ, *words], input="\n".join(lines or []), stdout=stdout, stderr=subprocess.PIPE, text=True,
                          env={**ENV, **env}, cwd=PROJECT, timeout=120)


class Process:
    """A shell of dmq that others may look into."""

    def __init__(self, folder, *words):
        self.shell = subprocess.Popen([DMQ, *words, "shell"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                      env={**ENV, "DM_CACHE_INSPECT": folder}, cwd=PROJECT)
        self.name = f"dmq.{self.shell.pid}"
        self("sync 17")

    def __call__(self, *lines):
        self.shell.stdin.write("\n".join([*lines, "echo done", ""]))
        self.shell.stdin.flush()
        return list(iter(self.shell.stdout.readline, "done\n"))

    def end(self):
        with contextlib.suppress(BrokenPipeError):
            self.shell.stdin.close()
        self.shell.stdout.close()
        self.shell.wait()


class WithFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def process(self, *words):
        process = Process(self.folder, *words)
        self.addCleanup(process.end)
        return process

    def dmq(self, *words, **env):
        return dmq("--inspect", self.folder, *words, **env)


class WithServer(WithFolder):
    """Processes on one Redis server."""

    def setUp(self):
        super().setUp()
        if not shutil.which("redis-server"):
            self.skipTest("redis-server is not installed")
        self.socket = self.folder + "/store.sock"
        self.store = ("--store", "redis+unix://" + self.socket)
        self.server = subprocess.Popen(["redis-server", "--port", "0", "--unixsocket", self.socket, "--dir", self.folder,
                                        "--save", ""], stdout=subprocess.DEVNULL)
        self.addCleanup(self.server.wait)
        self.addCleanup(self.server.terminate)
        end = time.monotonic() + 60
        while not os.path.exists(self.socket) and time.monotonic() < end:
            time.sleep(0.01)
        self.assertEqual(dmq(*self.store, "load", "examples/chassis.json").returncode, 0)

    def command(self, line):
        """Of the server's own language: written past every client."""
        with socket.socket(socket.AF_UNIX) as server:
            server.connect(self.socket)
            server.sendall(line.encode() + b"\r\n")
            answer = server.recv(65536).decode()
        self.assertFalse(answer.startswith("-"), answer)
        return answer


class Terminal:
    """A program with a person before it, who types keys and reads what has been written since, without what moves the cursor."""

    def __init__(self, *words, **env):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.chdir(PROJECT)
            os.execvpe(words[0], words, {**ENV, **env})
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 300, 0, 0))
        self.unread = ""

    def shows(self, keys, text):
        os.write(self.fd, keys.encode())
        while text not in self.unread and select.select([self.fd], [], [], 30)[0]:
            try:
                written = os.read(self.fd, 65536)
            except OSError:  # it has ended
                break
            self.unread += re.sub(r"\x1b\[[?0-9;]*[a-zA-Z]|\r", "", written.decode(errors="replace"))
        shown, self.unread = text in self.unread, self.unread.partition(text)[2]
        return shown

    def ends(self):
        """Its exit code."""
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])

    def close(self):
        os.close(self.fd)
