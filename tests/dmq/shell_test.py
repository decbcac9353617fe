"""The shell of dmq with a person before it. Argument: dmq."""

import os
import stat
import sys
import tempfile
import unittest
from pathlib import Path

from running import CHASSIS, DMQ, Terminal

CARD = "card_info devid=1 slotid=2 sslotid=0"
CLEAR = "\x15"


class Shell(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.state = Path(folder.name)

    def start(self, *words, **env):
        env = {"TERM": "xterm", "XDG_STATE_HOME": str(self.state), "DMQ_COMPLETION_SECONDS": "30", **env}
        terminal = Terminal(DMQ, *CHASSIS, *words, "shell", **env)
        self.addCleanup(terminal.close)
        self.assertTrue(terminal.shows("", "dmq> "))
        return terminal

    # What a person types is completed as it is on a command line, with what this shell's store has.
    def test_keys(self):
        shell = self.start()
        for keys, shown in [
            ("sho\tca\t sl\t1/2\n", "Slot 1/2"), ("get card_inf\tdevid=2 slotid=30 ssl\t", "sslotid=0 "),
            (CLEAR + "s\t", "show   A table"), ("", "sync"), ("", "dmq> s"),
            (CLEAR + "load examples/newc\t", "examples/newcomer.json "), (CLEAR + "tra\t", "trace "),
            (CLEAR + "echo on\x02\x02\x02 more\n", "more on"), ("echo never\x03", "^C"),
            ("echo caf\u00e9\x7fe\n", "cafe\n"), ("\x1b[A\x1b[A\n", "\nmore on\n"), ("\x12caf\n", "\ncafe\n"),
            (f"set {CARD} is_online=false\n", "is_online: true -> false"),
        ]:
            self.assertTrue(shell.shows(keys, shown), (keys, shown))
            if keys.endswith(("\n", "\x03")):
                self.assertTrue(shell.shows("", "dmq> "), keys)
        self.assertTrue(shell.shows("\x04", "\n"))
        self.assertEqual(shell.ends(), 0)
        history = self.state / "dmq/history"
        self.assertEqual(stat.S_IMODE(history.stat().st_mode), 0o600)
        self.assertNotIn("never", history.read_text())
        again = self.start()
        self.assertTrue(again.shows("\x1b[A\x1b[A\x1b[A\x1b[A", "more on"))
        self.assertTrue(again.shows("\x03", "dmq> "))

    # What is told while a line is typed stands above it, and what has been typed is still there.
    def test_a_watch_leaves_the_line_alone(self):
        fifo = self.state / "go"
        os.mkfifo(fifo)
        shell = self.start()
        for keys, shown in [(f"watch card_info -- sh -c 'read -r line < {fifo}; exit 3' &\n", "dmq> "),
                            (f"set {CARD} name=x\n", "dmq> "), ("echo half", "half")]:
            self.assertTrue(shell.shows(keys, shown), keys)
        fifo.write_text("go\n")
        self.assertTrue(shell.shows("", "dmq: sh ended with 3; it was to read {"))
        self.assertTrue(shell.shows("", "\ndmq> echo half"))
        self.assertTrue(shell.shows(" whole\n", "\nhalf whole\n"))

    # What an editor has changed is shown before it is written, and a no is a no.
    def test_edit_asks(self):
        shell = self.start(EDITOR="sed -i /cpu_num/s/1/7/")
        for keys, shown in [(f"edit {CARD}\n", "cpu_num: 1 -> 7\nwrite it? [y/n] "), ("n\n", "dmq: left alone"),
                            ("", "dmq> "), (f"edit {CARD}\n", "write it? [y/n] "), ("y\n", "set p_dev.card_info"),
                            ("", "dmq> "), (f"get {CARD}\n", '"cpu_num":7')]:
            self.assertTrue(shell.shows(keys, shown), (keys, shell.unread))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
