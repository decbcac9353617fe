"""dmq and other processes: their caches, who is there, and whether they are equal to their store. Argument: dmq.

The process that is looked into is a shell of dmq."""

import json
import os
import re
import signal
import subprocess
import threading
import time
import unittest

import running
from running import CHASSIS, DMQ, PROJECT, WithFolder, WithServer, dmq


class Attach(WithFolder):
    # Whoever looks into a process must not be shown what another cache has.
    def test_answers_as_the_process_would(self):
        process = self.process(*CHASSIS)
        process("store disconnect", "set card_info devid=1 slotid=30 sslotid=0 is_online=false",
                "delete port_static t_dev=1 t_slot=2 t_sslot=0 t_port=7 t_type=8")
        commands = ["get", "show ports slot=1/2", "show system", "show cards", "call ndm_get_master_slotid",
                    "call ndm_card_is_online 1 30 0", "get device_info devid=1 --json",
                    "explain ndm_get_global_port_by_ifx 0 63", "show port 1/2/7", "call ndm_get_role_by_node 1/M1", "explain ndm_card_is_online 1 31 1"]
        for command in commands:
            with self.subTest(command):
                self.assertEqual(self.dmq("--attach", "dmq", *command.split()).stdout, "".join(process(command)))
        shell = subprocess.run([DMQ, "--attach", f"{self.folder}/{process.name}", "shell"], input="\n".join(commands),
                               capture_output=True, text=True, env=running.ENV, cwd=PROJECT)
        self.assertEqual(shell.stdout, "".join("".join(process(command)) for command in commands))
        counters = json.loads(self.dmq("--attach", "dmq", "sync", "17", "--json").stdout)[0]
        self.assertEqual((counters["objects"], counters["sets"], counters["scanned"]), (20, 20, True))

    # A no of a process that follows too little is not the store's.
    def test_explain_names_a_row_that_the_process_does_not_follow(self):
        with subprocess.Popen([DMQ, *CHASSIS, "watch", "card_info"], stdout=subprocess.PIPE, text=True, cwd=PROJECT,
                              env={**running.ENV, "DM_CACHE_INSPECT": self.folder}) as watcher:
            self.addCleanup(watcher.kill)
            watcher.stdout.readline()
            self.assertIn("row 30 p_dev.vsd_port is not followed by the process", self.dmq("--attach", "dmq", "show", "ports").stderr)
            self.assertIn("because: row 13 p_dev.dp_lib_my_chss_info is not followed: nobody has asked for it",
                          self.dmq("--attach", "dmq", "explain", "ndm_is_vsu").stdout)
            watcher.kill()

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
            (["--attach", process.name, "explain", "ndm_reset_module_by_node_causelly", "1/30/0", "1", "heat"], 2, "writes the store"),
            (["--attach", process.name, "get", "card_info", "slotid=99"], 1, ""),
            (["--attach", str(process.shell.pid), "get", "card_info"], 0, ""),
        ]:
            with self.subTest(words):
                done = self.dmq(*words)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertIn(message, done.stderr)
        other = self.process()
        both = ", ".join(one.name for one in sorted([process, other], key=lambda one: one.shell.pid))
        self.assertIn(f"which process is meant by dmq: {both}?",
                      self.dmq("--attach", "dmq", "show").stderr)
        self.assertEqual(sorted(dmq("complete", "--inspect", self.folder, "--attach", "").stdout.split()),
                         sorted([process.name, other.name]))
        self.assertIn("in which folder is dmq?", dmq("--attach", "dmq", "show", DM_CACHE_INSPECT="").stderr)
        self.assertIn("and no store was asked: --store names one",
                      self.dmq("--attach", process.name, "explain", "ndm_get_slot_num_rt", "7").stdout)
        process.shell.send_signal(signal.SIGSTOP)
        stopped = [self.dmq("--attach", name, "--timeout", "0.2", "show") for name in (process.name, f"{self.folder}/{process.name}")]
        process.shell.send_signal(signal.SIGCONT)
        for done in stopped:
            self.assertEqual((done.returncode, "does not answer" in done.stderr), (4, True), done.stderr)


class Server(WithServer):
    def verify(self, *words):
        done = self.dmq(*self.store, "--timeout", "60", *words, "verify", "--json")
        return done.returncode, [(it["row"], it["key"], it["why"]) for it in json.loads(done.stdout or "null") or []], done.stderr

    # A difference that is none sends an operator after a fault that is not there; one that is not told leaves him with it.
    def test_verify_tells_what_differs_while_everything_changes(self):
        process = self.process(*self.store)
        begun, stop = threading.Event(), threading.Event()
        ports = "t_vsdid=0 t_dev=1 t_slot=2 t_type=8 t_sslot=0"
        written = 0

        def write():
            nonlocal written
            with subprocess.Popen([DMQ, *self.store, "shell"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                  env=running.ENV, cwd=PROJECT) as shell:
                while not stop.is_set():
                    for port in range(1, 40):
                        shell.stdin.write(f"set vsd_port {ports} t_port={port} link_state={written % 2} "
                                          f"ifx={70000 + 100 * (written % 3) + port}\n"
                                          f"set port_static t_dev=1 t_slot=2 t_sslot=0 t_port={port} t_type=8 "
                                          f"static_info.lport={100 * (written % 2) + port}\n")
                    shell.stdin.write("echo done\n")
                    shell.stdin.flush()
                    while shell.stdout.readline() != "done\n":
                        pass
                    written += 1
                    begun.set()
                shell.stdin.close()

        writer = threading.Thread(target=write)
        writer.start()
        try:
            self.assertTrue(begun.wait(60))
            for words in [(), ("--attach", "dmq")] * 2:
                self.assertEqual(self.verify(*words)[:2], (0, []), words)
        finally:
            stop.set()
            writer.join()
        card = "devid=1 slotid=30 sslotid=0"
        self.command("COPY dm:1:p_dev.card_info kept")
        process(f"set vsd_port {ports} t_port=45 ifx=80000", f"set vsd_port {ports} t_port=46 ifx=80000",
                f"delete vsd_port {ports} t_port=45", f"set card_info {card} is_online=false")
        self.command("EVAL \"return redis.call('HSET', KEYS[1], unpack(redis.call('HGETALL', 'kept')))\" 1 dm:1:p_dev.card_info")
        self.command("EVAL \"return redis.call('HDEL', KEYS[1], redis.call('HKEYS', KEYS[1])[1])\" 1 dm:1:p_dev.local_card_info")
        self.command("EVAL \"return redis.call('HSET', KEYS[1], redis.call('HKEYS', KEYS[1])[1], string.char(255))\" 1 dm:1:p_dev.device_info")
        code, told, _ = self.verify("--attach", "dmq")
        changed = "written past the library, or changed in place by the client"
        self.assertEqual((code, [(row, why) for row, _, why in told]),
                         (1, [(14, "deleted past the library"), (16, "its bytes in the store mean nothing, so no cache takes them"), (17, changed),
                              (30, "not found by ifx 0x13880")]))
        self.assertEqual([key for _, key, _ in told[2:]], [card, "t_vsdid=0 t_dev=1 t_slot=2 t_port=46 t_type=8 t_sslot=0"])
        self.assertIn("is_online=true  is_online=false", self.dmq(*self.store, "--attach", "dmq", "verify", "17").stdout)
        self.assertEqual([row for row, _, _ in self.verify()[1]], [16])
        self.assertIn("verify compares with the store that --store", self.dmq("--attach", "dmq", "verify").stderr)

    def test_clients_are_told_by_their_names(self):
        process, dead = self.process(*self.store), self.process(*CHASSIS)
        dead.shell.kill()
        dead.shell.wait()
        done = self.dmq(*self.store, "clients", "--json")
        first, *connected = json.loads(done.stdout)
        self.assertEqual([first[what] for what in ["name", "pid", "state", "objects", "store"]],
                         ["dmq", process.shell.pid, "live", 1371, self.store[1]])
        self.assertEqual({it["name"] for it in connected}, {"dmq"})
        self.assertIn(f"left their sockets behind: {dead.name}", done.stderr)
        self.assertEqual(dmq("clients", DM_CACHE_INSPECT="").returncode, 2)
        # Whoever may not name itself, nor ask for others, is a client all the same.
        self.command("ACL SETUSER mute on >word ~dm:* &dm:* +@all -client|setname -client|list")
        mute = ("--store", f"redis+unix://mute:word@{self.socket}")
        self.process(*mute)
        self.assertEqual(dmq(*mute, "sync", "17").returncode, 0)
        self.assertIn("does not say who is connected", dmq(*mute, "clients").stderr)
        names = re.findall(r" user=mute .*| name= .* user=mute", self.command("CLIENT LIST"))
        self.assertGreater(len(names), 0)


if __name__ == "__main__":
    unittest.main(argv=running.sys.argv[:1])
