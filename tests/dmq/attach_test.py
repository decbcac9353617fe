"""dmq and other processes: their caches, who is there, and whether they are equal to their store. Argument: dmq.

The process that is looked into is a shell of dmq."""

import contextlib
import json
import os
import signal
import subprocess
import tempfile
import unittest

import running
from running import CHASSIS, DMQ, PROJECT, dmq


class Process:
    """A shell of dmq that others may look into."""

    def __init__(self, folder, *words):
        self.shell = subprocess.Popen([DMQ, *words, "shell"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                      env={**running.ENV, "DM_CACHE_INSPECT": folder}, cwd=PROJECT)
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


class Attach(WithFolder):
    # Whoever looks into a process must not be shown what another cache has.
    def test_answers_as_the_process_would(self):
        process = self.process(*CHASSIS)
        process("store disconnect", "set card_info devid=1 slotid=30 sslotid=0 is_online=false",
                "delete port_static t_dev=1 t_slot=2 t_sslot=0 t_port=7 t_type=8")
        commands = ["get", "show ports slot=1/2", "show system", "show cards", "call ndm_get_master_slotid",
                    "call ndm_card_is_online 1 30 0", "get device_info devid=1 --json"]
        for command in commands:
            with self.subTest(command):
                self.assertEqual(self.dmq("--attach", "dmq", *command.split()).stdout, "".join(process(command)))
        shell = subprocess.run([DMQ, "--attach", f"{self.folder}/{process.name}", "shell"], input="\n".join(commands),
                               capture_output=True, text=True, env=running.ENV, cwd=PROJECT)
        self.assertEqual(shell.stdout, "".join("".join(process(command)) for command in commands))
        counters = json.loads(self.dmq("--attach", "dmq", "sync", "17", "--json").stdout)[0]
        self.assertEqual((counters["objects"], counters["sets"], counters["scanned"]), (20, 20, True))

    def test_what_is_refused(self):
        process = self.process(*CHASSIS)
        open(self.folder + "/no_socket.1", "w").close()
        for words, code, message in [
            (["--attach", "dqm", "show"], 3, f"no process dqm answers in {self.folder} (did you mean dmq?)"),
            (["--attach", "no_socket", "show"], 3, "no process no_socket answers"),
            (["--attach", self.folder + "/no_socket.1", "show"], 3, "no_socket.1: its process has ended"),
            (["--attach", self.folder + "/none", "show"], 3, "none: No such file or directory"),
            (["--attach", process.name, "set", "card_info"], 2, "set is not for a process that dmq is attached to"),
            (["--attach", process.name, "watch"], 2, "watch is not for a process"),
            (["--attach", process.name, *CHASSIS, "show"], 2, "--load fills a store"),
            (["--attach", process.name, "get", "card_info", "slotid=99"], 1, ""),
            (["--attach", str(process.shell.pid), "get", "card_info"], 0, ""),
        ]:
            with self.subTest(words):
                done = self.dmq(*words)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertIn(message, done.stderr)
        other = self.process()
        self.assertIn(f"which process is meant by dmq: {', '.join(sorted([process.name, other.name]))}?",
                      self.dmq("--attach", "dmq", "show").stderr)
        self.assertIn("in which folder is dmq?", dmq("--attach", "dmq", "show", DM_CACHE_INSPECT="").stderr)
        process.shell.send_signal(signal.SIGSTOP)
        done = self.dmq("--attach", f"{self.folder}/{process.name}", "--timeout", "0.2", "show")
        process.shell.send_signal(signal.SIGCONT)
        self.assertEqual((done.returncode, "does not answer" in done.stderr), (4, True), done.stderr)


if __name__ == "__main__":
    unittest.main(argv=running.sys.argv[:1])
