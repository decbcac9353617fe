"""dmq in trouble: writes that would hurt, stores that are empty or silent, input without end, memory that runs out.

Arguments: dmq, and in a plain build the library that lets allocations fail.
"""

import json
import os
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from running import ARGUMENTS, CHASSIS, DMQ, ENV, PROJECT, SLOW, dmq

PORT = "t_vsdid=0 t_dev=1 t_slot=2 t_port=7 t_type=8 t_sslot=0"
OBEYED = "[\x00-\x09\x0b-\x1f\x7f-\x9f]"  # by a terminal


def start(*words, stdin=None):
    return subprocess.Popen([DMQ, *words], stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            cwd=PROJECT, env=ENV)


def kept(text):
    """A file of it, for as long as it is held."""
    file = tempfile.NamedTemporaryFile("w", suffix=".json")
    file.write(text)
    file.flush()
    return file


class Writes(unittest.TestCase):
    # A field that is forgotten or mistyped makes a port that is not there, and may push a real one out of a full cache.
    def test_only_what_is_meant(self):
        no_type, added = PORT.replace("t_type=8", "t_type=0"), PORT.replace("t_port=7", "t_port=77")
        for command, code, told in [
            ("set vsd_port t_dev=1 t_slot=2 t_port=7 link_state=0", 2, "whole key; it lacks t_vsdid, t_type, t_sslot"),
            ("set card_info index={} is_online=false", 2, "it lacks devid, slotid, sslotid"),
            ("set card_info devid=1 devid=2 slotid=2 sslotid=0 name=x", 2, "devid is given twice"),
            ("delete card_info devid=1 slotid=2", 2, "whole key; it lacks sslotid"),
            ("store damage card_info devid=1 slotid=2", 2, "whole key; it lacks sslotid"),
            (f"set vsd_port {no_type} link_state=0", 1, f"no such object in the store, the nearest: {PORT};"),
            ("set card_info devid=1 slotid=33 sslotid=0 name=x", 1,
             "the nearest: devid=1 slotid=31 sslotid=0; devid=1 slotid=30 sslotid=0; devid=1 slotid=23 sslotid=0; --create"),
            (f"delete vsd_port {no_type}", 1, f"the nearest: {PORT};"),
            ("set examples/newcomer.json", 1, "device_info devid=3: no such object in the store, the nearest: devid=2;"),
            (f"set vsd_port {PORT} link_state=0 line_state=1 --dry-run", 0, f"would set p_dev.vsd_port {PORT}\n  link_state: 1 -> 0\n"),
            (f"set vsd_port {added} link_state=1 --create --dry-run", 0, f"would set p_dev.vsd_port {added}: added\n"),
            (f"delete vsd_port {PORT} --dry-run", 0, f"would delete p_dev.vsd_port {PORT}\n"),
            (f"set vsd_port {PORT} link_state=0 --if link_state=0 --if line_state=0", 1,
             f"p_dev.vsd_port {PORT}: link_state is 1, not 0, line_state is 1, not 0; left alone"),
            (f"delete vsd_port {PORT} --if link_state=0", 1, "link_state is 1, not 0; left alone"),
            (f"set vsd_port {added} link_state=1 --create --if link_state=0", 1, "there is no such object in the store; left alone"),
            (f"set vsd_port {PORT} link_state=0 --if link_state=up", 2, "needs a whole number"),
            ("set examples/box.json --if link_state=0", 2, "--if is for fields of one object"),
            (f"edit vsd_port {PORT}", 2, "elsewhere it needs --yes"),
            (f"edit vsd_port {no_type} --yes", 1, f"no such object in the store, the nearest: {PORT};"),
            (f"set vsd_port {PORT} link_state=1", 0, f"set p_dev.vsd_port {PORT}: nothing changed\n"),
        ]:
            with self.subTest(command):
                done = dmq(*CHASSIS, lines=["get", command, "get"])
                before, after = re.findall(r"(?ms)^\[\n.*?^\]\n", done.stdout)
                self.assertEqual(before, after)
                self.assertEqual((code, True), (dmq(*CHASSIS, *command.split()).returncode, told in done.stdout + done.stderr),
                                 done.stderr)
        done = dmq(*CHASSIS, lines=[f"set vsd_port {PORT} link_state=0 line_state=1 --if link_state=1", f"set vsd_port {added} --create --json",
                                    "set examples/newcomer.json --create", "store compare", f"delete vsd_port {PORT} --json"])
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        told = done.stdout.splitlines()
        self.assertEqual(told[:2], [f"set p_dev.vsd_port {PORT}", "  link_state: 1 -> 0"])
        records = [json.loads(line) for line in told if line.startswith("{")]
        self.assertEqual([(record["dry_run"], record["objects"][0]["event"]) for record in records],
                         [(False, "added"), (False, "deleted")])
        self.assertIn("set p_dev.device_info devid=3: added", told)
        self.assertIn(" 30  p_dev.vsd_port               401    401        0  yes", told)


    # What an editor saves is what the object becomes, and nothing else: no field by the way, no other object, no half file.
    def test_what_an_editor_saves(self):
        card = "card_info devid=1 slotid=2 sslotid=0"
        for script, code, told in [
            ("s/\"name\": \"LC\"/\"name\": \"a b\"/", 0, 'name: "LC" -> "a b"\n  static_info.name: "LC" -> "a b"\n'),
            ("/user_slot\"/d", 0, "user_slot: 3 -> 0\n"), ("s/^/ /", 0, ": nothing changed\n"),
            ("s/\"slotid\": 2/\"slotid\": 3/", 2, "the key may not change"), ("/^}/d", 2, "not JSON: parse error at line"),
            ("s/\"name\"/\"nmae\"/", 2, "has no field \"nmae\" (did you mean name?)"), ("d", 1, "the file is empty"),
            ("q5", 1, "the editor ended with 5; left alone"),
        ]:
            with self.subTest(script), tempfile.TemporaryDirectory() as folder:
                done = dmq(*CHASSIS, lines=["get", f"edit --yes {card}", "get"], EDITOR=f"sed -i '{script}'", TMPDIR=folder)
                before, after = re.findall(r"(?ms)^\[\n.*?^\]\n", done.stdout)
                self.assertEqual((told in done.stdout + done.stderr, before != after), (True, code == 0 and "->" in told), done.stderr)
                self.assertEqual((done.returncode if code == 2 else code, os.listdir(folder)), (code, []))
        with tempfile.TemporaryDirectory() as folder:
            for script, code in [("kill -INT $PPID $$; true", -signal.SIGINT), ("kill -INT $PPID; true", 0)]:
                done = dmq(*CHASSIS, "edit", "--yes", *card.split(), EDITOR=script, TMPDIR=folder)
                self.assertEqual((done.returncode, os.listdir(folder)), (code, []), script)


class Doubts(unittest.TestCase):
    # An empty table with exit code 0 is a switch without cards.
    def test_a_store_that_is_empty(self):
        for store, said in [([], "no store is named by --store or DMQ_STORE"), (["--store", "mem:x"], "the store mem:x is empty")]:
            for command in ["show system", "show cards", "get", "get card_info", "sync", "call ndm_is_vsu", "watch --for 0",
                            "store compare"]:
                done = dmq(*store, *command.split())
                self.assertEqual((done.returncode, said in done.stderr), (1, True), (store, command, done.stderr))
        done = dmq(lines=["set device_info devid=3 --create", "get card_info", "sync"])
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        done = dmq("--store", "mem:x", "watch", "--for", "0.6", "--timeout", "0.5")  # its own time is not that of the waits
        self.assertEqual((done.returncode, done.stderr.count("is empty")), (1, 2), done.stderr)

    # Whoever reads a table must know that a port is missing in it.
    def test_a_row_that_is_full(self):
        objects = [f'{{"db":1,"kind":"p_dev.lport_info","object":{{"index":{{"lport":{i}}}}}}}' for i in range(10002)]
        with kept("[" + ",\n".join(objects) + "]") as file:
            for command in ["show devices", "sync", "get lport_info", "call ndm_is_vsu"]:
                done = dmq("--timeout", "100", *CHASSIS, "--load", file.name, *command.split())
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stderr, r"row 9 p_dev.lport_info has refused 2 and lacks 2 of the store's objects; "
                                              r"the first is p_dev.lport_info lport=\d+\n")


class Waits(unittest.TestCase):
    def setUp(self):
        self.silent = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(self.silent.close)
        self.url = f"redis://127.0.0.1:{self.silent.getsockname()[1]}"

    # A script that waits for longer than it was told holds up what is behind it.
    def test_a_server_that_accepts_and_never_answers(self):
        for command in ["sync", "show cards", "load examples/box.json", "set vsd_info t_vsdid=0 status=STA_STOP", "watch",
                        "call ndm_is_vsu", "store compare"]:
            begin = time.monotonic()
            done = dmq("--store", self.url, "--timeout", "0.5", *command.split())
            self.assertEqual(done.returncode, 4, command)
            self.assertIn(f"did not answer after 0.5 s: waited for the store {self.url} to be opened", done.stderr)
            self.assertLess(time.monotonic() - begin, 10 if SLOW else 2.5, command)

    def test_ctrl_c_while_it_is_opened(self):
        for command in ["sync", "watch"]:
            with start("--store", self.url, command) as run:
                self.addCleanup(self.silent.accept()[0].close)
                begin = time.monotonic()
                run.send_signal(signal.SIGINT)
                self.assertEqual(run.wait(), -signal.SIGINT)
                self.assertLess(time.monotonic() - begin, 1)

    # What runs for a change ends with the watch, and what waits for it does not run any more.
    def test_a_program_that_does_not_end(self):
        run = start(*CHASSIS, *"watch --initial card_info -- sh -c".split(), "echo begun; exec sleep 1000")
        for clean in [run.stdout.close, run.stderr.close, run.wait, run.kill]:
            self.addCleanup(clean)
        self.assertEqual(run.stdout.readline(), "begun\n")
        run.send_signal(signal.SIGINT)
        self.assertEqual((run.wait(timeout=30), run.stdout.read()), (0, ""))

    # The cache must carry the largest switch there is; where everything is slow, a tenth of it. What is waited for must be
    # said, also while objects are being applied: time-outs fall into every stage of it.
    def test_every_time_out_of_ten_thousand_ports_has_a_reason(self):
        cards = 2 if SLOW else 20
        with kept(dmq(*f"gen --devices 5 --cards {cards} --ports 100 --subcards 0".split()).stdout) as file:
            done = dmq("--timeout", "100", "--load", file.name, lines=["sync --timeout 0.005"] * 400 + ["sync --json"])
        reasons = re.findall(r"not synchronised after 0.005 s: (.*)", done.stderr)
        self.assertNotIn("", reasons)
        if not SLOW:
            self.assertGreater(len(reasons), 2)
            self.assertTrue(any(re.match("all 23 rows are scanned, [0-9,]+ of [0-9,]+ objects applied", r) for r in reasons))
        counts = {row["kind"]: (row["objects"], row["refused"]) for row in json.loads(done.stdout.splitlines()[-1])}
        for kind in ["vsd_port", "port_static", "vsd_port_attr"]:
            self.assertEqual(counts["p_dev." + kind], (cards * 500, 0))

    # Until the process looks itself at an interrupt; an emulator does not tell.
    def wait_for_care(self, pid):
        end, interrupt = time.monotonic() + (3 if SLOW else 30), 1 << (signal.SIGINT - 1)
        blocked = 0
        while not blocked & interrupt and time.monotonic() < end:
            blocked = int(re.search(r"SigBlk:\s*(\w+)", Path(f"/proc/{pid}/status").read_text())[1], 16)
            time.sleep(0.01)

    # A person who stops a watch and goes on with it is not to lose what happens then.
    def test_a_watch_that_was_stopped(self):
        with start(*CHASSIS, "shell", stdin=subprocess.PIPE) as run:
            run.stdin.write("watch\necho over\n")
            run.stdin.close()
            self.assertRegex(run.stdout.readline(), "following 23 kinds, 1371 objects, live\n")
            self.wait_for_care(run.pid)
            for _ in range(200):
                for order, state in [(signal.SIGSTOP, os.WSTOPPED), (signal.SIGCONT, os.WCONTINUED)]:
                    run.send_signal(order)
                    os.waitid(os.P_PID, run.pid, state)
            self.assertFalse(select.select([run.stdout], [], [], 0)[0])
            run.send_signal(signal.SIGINT)
            self.assertEqual((run.stdout.read(), run.wait()), ("over\n", 0))

    # A watch and a command wait for the same application, and deadlines fall into the next second.
    def test_two_that_wait(self):
        begin = time.monotonic()
        done = dmq(*CHASSIS, lines=["store lose 1", "sync --timeout 1.1"])
        self.assertEqual((done.returncode, "after 1.1 s: row 1" in done.stderr), (4, True))
        self.assertGreaterEqual(time.monotonic() - begin, 1.1)
        done = dmq(*CHASSIS, lines=["sync", "watch &"] + ["store disconnect", "store reconnect --timeout 30.999"] * 20)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout.count("  resynchronised, 0 objects were gone"), 20)
        self.assertLess(time.monotonic() - begin, 25)


class Input(unittest.TestCase):
    # What can be read without end, or without bottom, must not take the machine with it.
    def test_bounds(self):
        deep = "[" * 60000
        with kept(f'[{{"db":1,"kind":"p_dev.card_info","object":{{"name":{deep}{"]" * 60000}}}}}]') as file:
            for words, lines, said in [
                (["load", file.name], None, "entry 1: nested deeper than 64"),
                (["get", "card_info", "slotid=" + deep], None, "nested deeper"),
                ([], ["get card_info slotid=" + deep], "line 1: slotid: nested deeper"),
                ([], ["get x" + deep * 2], "line 1: longer than"),
                (["get", deep], None, "there is no kind [[["),
                (["load", "/dev/zero"], None, "/dev/zero: larger than 64 MiB"),
                (["shell", "/dev/zero"], None, "/dev/zero:1: longer than"),
                (["gen", "--layout", "/dev/zero"], None, "larger than"),
                (["set", deep], None, "there is no kind [[["),
            ]:
                done = dmq(*words, lines=lines)
                self.assertEqual((done.returncode, said in done.stderr), (2, True), done.stderr[-300:])

    # A name that somebody else has written must not move a terminal's cursor, nor send it an answer to type.
    def test_nothing_that_a_terminal_obeys(self):
        evil = "\x1b[2J\x7f\x9b31m\u202f\t"
        for command in ["get {}", "{}", "show {}", "call {}", "store {}", "get card_info {}=1", "set dm_chip_stattr_t name={}"]:
            done = dmq(*(word.format(evil) for word in command.split()))
            self.assertEqual(done.returncode, 2)
            self.assertNotRegex(done.stderr, OBEYED, command)
        self.assertEqual(dmq("get", b"\xff\x9b1").stderr.split(";")[0], "dmq: there is no kind \\xff\\x9b1")
        done = dmq(*CHASSIS, lines=["watch &", f"set card_info devid=1 slotid=2 sslotid=0 'name={evil}'", "show cards slot=1/3",
                                    "get card_info slotid=2", "trace on", f"get '{evil}'"])
        self.assertIn('\\u001b[2J\\u007f\\u009b31m\u202f\\t', done.stdout)
        self.assertNotRegex(done.stdout + done.stderr, OBEYED)


def failing(number):
    return {"LD_PRELOAD": ARGUMENTS[0], "FAIL_AT": str(number)}


@unittest.skipUnless(ARGUMENTS, "for a plain build")
class Memory(unittest.TestCase):
    # A table that lacks a port because memory ran out looks like one of a switch that has no such port.
    def test_one_allocation_fails(self):
        with kept(dmq(*"gen --devices 1 --cards 1 --ports 5 --boards 1 --fabrics 0 --subcards 0".split()).stdout) as file:
            for command in ["show slots", "get", "call ndm_get_static_port_by_lsm_key 1 1 1 ETH_25G",
                            "set card_info devid=1 slotid=0 sslotid=0 is_online=false"]:
                def run(number):
                    return dmq("--timeout", "3", "--load", file.name, *command.split(), **failing(number))
                whole = run(0)
                count = int(re.search(r"allocations: (\d+)", whole.stderr)[1])
                for number in [*range(1, 60, 1 if command == "get" else 7), *range(60, count - 1000, 397),
                               *range(count - 1000, count, 17)]:
                    done = run(number)
                    self.assertTrue(0 <= done.returncode < 5, (command, number, done))
                    self.assertTrue(done.returncode != 0 or done.stdout == whole.stdout, (command, number, done))
                    self.assertTrue(done.returncode == 0 or done.stderr, (command, number, done))

    # A shell that keeps what queries hand out grows until the machine has no memory.
    def test_what_a_query_hands_out_is_released(self):
        for command in ["call ndm_get_my_lchips", "call ndm_get_global_port_in_chip 1 1 0"]:
            few, many = [dmq(*CHASSIS, lines=["sync"] + [command] * times, **failing(0)).stderr for times in [1, 101]]
            left = re.compile(r"left: (\d+)")
            self.assertLess(int(left.search(many)[1]) - int(left.search(few)[1]), 50, command)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
