"""The panel on a terminal, as a person has it. Argument: dmq.

The terminal is a VT52, which knows little: where to write, and what to wipe out."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import sys
import termios
import time
import unittest

import running
from running import CHASSIS, DMQ, ENV, PROJECT, WithFolder, WithServer, dmq

UP, DOWN, RIGHT, LEFT, ESCAPE = "\x1bA", "\x1bB", "\x1bC", "\x1bD", "\x1b"
PORT = "t_vsdid=0 t_dev=1 t_slot=2 t_port=7 t_type=8 t_sslot=0"


class Terminal:
    def __init__(self, *words, **env):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.chdir(PROJECT)
            os.execve(DMQ, [DMQ, *words], {**ENV, "TERM": "vt52", **env})
        self.written = self.pending = b""
        self.cells, self.at = {}, (0, 0)
        self.before = termios.tcgetattr(self.fd)
        self.resize(80, 24)

    def resize(self, columns, rows):
        self.columns, self.rows = columns, rows
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def wipe(self, rows, column):
        for row in rows:
            for x in range(column if row == self.at[0] else 0, self.columns):
                self.cells.pop((row, x), None)

    def take(self, data):
        """What the panel has written, as far as its last order is whole."""
        self.written += data
        text = (self.pending + data).decode("latin-1")
        self.pending = b""
        while text:
            order = re.match("\x1b(Y..|[^Y])", text, re.DOTALL)
            row, column = self.at
            if text[0] == "\x1b" and not order:
                self.pending = text.encode("latin-1")
                return
            if not order:
                moved = {"\r": (row, 0), "\n": (row + 1, column), "\b": (row, column - 1)}.get(text[0])
                if not moved and text[0] >= " ":
                    self.cells[self.at] = text[0]
                self.at = moved or (row, column + (text[0] >= " "))
                text = text[1:]
                continue
            code = order[1]
            moves = {"A": (-1, 0), "B": (1, 0), "C": (0, 1), "D": (0, -1), "I": (-1, 0)}
            if code[0] == "Y":
                self.at = (ord(code[1]) - 32, ord(code[2]) - 32)
            elif code in moves:
                self.at = (row + moves[code][0], column + moves[code][1])
            elif code == "H":
                self.at = (0, 0)
            elif code in "JK":
                self.wipe(range(row, self.rows if code == "J" else row + 1), column)
            text = text[len(order[0]):]

    def screen(self):
        return "\n".join("".join(self.cells.get((row, x), " ") for x in range(self.columns)).rstrip() for row in range(self.rows))

    def until(self, *wanted, gone=None):
        """Until all of this stands there, and that does not."""
        end = time.monotonic() + (120 if running.SLOW else 30)
        while not (all(text in self.screen() for text in wanted) and (gone is None or gone not in self.screen())):
            if not select.select([self.fd], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError(f"{wanted}, without {gone}:\n{self.screen()}")
            self.take(os.read(self.fd, 65536))
        return self.screen()

    def type(self, keys):
        os.write(self.fd, keys.encode())

    def end(self):
        """Its exit code, once it has written everything."""
        while True:
            try:
                data = os.read(self.fd, 65536)
            except OSError:
                break
            self.take(data)
        _, status = os.waitpid(self.pid, 0)
        return os.waitstatus_to_exitcode(status)


class WithPanel(WithFolder):
    def panel(self, *words, **env):
        terminal = Terminal(*words, "panel", **env)
        self.addCleanup(os.close, terminal.fd)
        return terminal

    def left(self, terminal):
        """With exit code 0, the terminal as it was: lines, and what is typed is shown."""
        self.assertEqual(terminal.end(), 0)
        self.assertEqual(termios.tcgetattr(terminal.fd)[:4], terminal.before[:4])


class Panel(WithPanel):
    def test_cards_and_ports_are_walked_through(self):
        panel = self.panel(*CHASSIS)
        screen = panel.until("dmq  mem:", "live", "page 1/2", "> 1/1    LC-SUB", "MB           online master", "/ find")
        self.assertIn("  1/2    LC           ###### ###### ###### ######\n         42 of 48 up  ###.## #.###. ###.## #.###.\n", screen)
        panel.type(DOWN * 3)
        panel.until("> 1/2 ")
        panel.type("\r")
        panel.until("Slot 1/2  LC  online  42 of 48 up", "[ 1#]  3# ", "TwentyFiveGigE 1/2/1  up", "pslot             1")
        panel.type(DOWN + RIGHT * 3)
        panel.until("[ 8.]", "TwentyFiveGigE 1/2/8  down")
        panel.type("\t\r")
        panel.until("TwentyFiveGigE 1/3/1  up  of LC in slot 1/3", "0x14040201", "row 11 p_dev.dm_card_stattr_t")
        panel.type(ESCAPE)
        panel.until("Slot 1/3  LC")
        panel.type("\x7f")
        panel.until("> 1/3 ")
        for word, said in [("2/3/7", "TwentyFiveGigE 2/3/7  up"), ("twentyfivegige 1/4/44\b8", "TwentyFiveGigE 1/4/48  down"),
                           ("ifx=52", "GigE 1/1/1/4  up"), ("0x14040201", "TwentyFiveGigE 1/3/1  up"),
                           ("link=down lport=48", "1 of 8 that are called link=down lport=48"), ("1/1/2/1", "GigE 1/1/2/1  up"), ("nocolumn=1", "nocolumn"),
                           ("nobody", "no port is called nobody")]:
            panel.type("/" + word + "\r")
            panel.until(said, gone="/" + word + "_")
        panel.type("/gige 2/1\rn")
        panel.until("2 of ", "TwentyFiveGigE 2/1/2")
        panel.type("q")
        self.left(panel)

    def test_every_size(self):
        big = dmq(*"gen --devices 16 --cards 2 --ports 48".split()).stdout
        file = self.folder + "/big.json"
        with open(file, "w") as out:
            out.write(big)
        panel = self.panel("--load", file)
        panel.until("page 1/8", "device 1 ")
        panel.resize(60, 20)
        panel.until("This terminal has 60x20; the panel needs 80x24", gone="device")
        panel.resize(200, 50)
        panel.until("page 1/2", "device 1 ", "device 8 ", gone="needs")
        panel.resize(80, 24)
        panel.until("page 1/8", gone="device 3 ")
        panel.type(RIGHT * 15)
        panel.until("device 16 ", "> 16/1 ")
        panel.type(LEFT + UP)
        panel.until("> 14/M2")
        os.kill(panel.pid, signal.SIGTERM)
        self.left(panel)

    # A process that ends must not take the picture of its last moments along, nor the terminal.
    def test_another_process(self):
        process = self.process(*CHASSIS)
        panel = self.panel("--inspect", self.folder, "--attach", "dmq")
        panel.until(process.name, "live", "  1/2    LC           ######")
        process(f"set vsd_port {PORT} link_state=0", "set card_info devid=1 slotid=2 sslotid=0 is_online=false",
                "delete port_static t_dev=1 t_slot=2 t_sslot=0 t_port=5 t_type=8",
                "delete vsd_port t_vsdid=0 t_dev=1 t_slot=2 t_port=3 t_type=8 t_sslot=0")
        panel.until("  1/2    LC           #-?.## ", "  1/3    LC           ######", "\n         offline  ")
        process.shell.kill()
        panel.until("NOT LIVE", "its process has ended", "#-?.##")
        panel.type("\x03")
        self.left(panel)

    def test_what_is_no_terminal(self):
        for term, said in [("", "TERM is not set"), ("nonsense", "TERM=nonsense: this terminal is not known"),
                           ("dumb", "cannot move its cursor")]:
            panel = self.panel("--load", "examples/box.json", TERM=term)
            self.assertEqual(panel.end(), 2)
            self.assertIn(said, panel.written.decode())
        done = dmq("--load", "examples/box.json", "panel")
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        self.assertIn("--once", done.stderr)
        self.assertIn("--once", dmq(*CHASSIS, lines=["panel"]).stderr)
        self.assertIn("show has tables", dmq(*CHASSIS, "panel", "--once", "--json").stderr)

    # What somebody has called a card must not move the cursor; who wants no colours is to see the ports all the same.
    def test_text_and_colours(self):
        evil = "set card_info devid=1 slotid=1 sslotid=0 'name=\x1b[2J'"
        once = dmq(*CHASSIS, lines=[evil, "panel --once"])
        self.assertIn("  1/2    \\u001b[2J    ###### ", once.stdout)
        self.assertNotIn("\x1b", once.stdout)
        for no_color, is_coloured in [({}, True), ({"NO_COLOR": "1"}, False)]:
            ENV.pop("NO_COLOR", None)
            panel = self.panel("--load", "examples/box.json", TERM="xterm", **no_color)
            panel.type("q")
            self.left(panel)
            self.assertEqual(b"\x1b[42m" in panel.written, is_coloured)


class Following(WithPanel, WithServer):
    def test_changes_as_they_come(self):
        panel = self.panel(*self.store)
        panel.until("dmq  redis+unix:", "live", "  1/2    LC           ######")
        self.assertEqual(dmq(*self.store, "set", "vsd_port", *PORT.split(), "link_state=0").returncode, 0)
        panel.until("  1/2    LC           ###.## ", "vsd_port TwentyFiveGigE 1/2/7: link_state 1 -> 0")
        self.server.kill()
        panel.until("NOT LIVE", "the connection to the store is lost", "###.## ")
        panel.type("q")
        self.left(panel)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
