"""What a shell asks of dmq, and what a person finds in its manual page. Argument: dmq."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import running
from running import CHASSIS, DMQ, PROJECT, Terminal

ENV = {"DMQ_COMPLETION_SECONDS": "60", "PATH": os.path.dirname(DMQ) + ":" + os.environ["PATH"], "TERM": "dumb", "PS1": "@@ "}


def dmq(*words, **env):
    return running.dmq(*words, **{**ENV, **env})


def complete(*words):
    return [line.split("\t")[0] for line in dmq("complete", *words).stdout.splitlines()]


class Completion(unittest.TestCase):
    def test_candidates(self):
        for words, expected in [
            (["sh"], ["show", "shell"]), (["show", "c"], ["cards", "chips", "card"]),
            (["show", "cards", "d"], ["dev=", "dcm="]), (["--timeout", "5", "--json", "wai"], ["wait"]),
            (["watch", "--f"], ["--for"]), (["get", "--j"], ["--json"]),
            (["--log", ""], ["0", "1", "2"]), (["--store", "redis+"], ["redis+unix:///"]),
            (["--timeout", ""], []), (["help", "wa"], ["watch", "wait"]), (["watch", "--", "car"], []),
            (["set", "card_info", "--if", "is_on"], ["is_online="]), (["gen", "--ports", "4", "--bo"], ["--boards", "--box"]),
            (["watch", "card_info", "vsl"], ["vsl_port_info"]),
            (["call", "ndm_get_slot_nu"], ["ndm_get_slot_num", "ndm_get_slot_num_rt"]),
            (["call", "ndm_port_obj_f"], []), (["store", "re"], ["reconnect", "restart"]),
            ([*CHASSIS, "get", "card_info", "devid=1", "slotid=3"], ["slotid=3", "slotid=30", "slotid=31"]),
            (["delete", *CHASSIS, "card_info", "slotid=22", ""], ["devid=1", "devid=2", "sslotid=0", "t_mod=0"]),
            ([*CHASSIS, "set", "17", "slotid=22", "devid=1", "is_o"], ["is_online="]),
            ([*CHASSIS, "store", "damage", "device_info", ""], ["devid=1", "devid=2"]),
            (["show", "cards", "role=DM_ROLE_M"], ["role=DM_ROLE_MASTER"]),
            (["show", "ports", "--sort", "mbps,v"], ["mbps,vsd"]), (["sync", "--format", "c"], ["csv"]),
            ([*CHASSIS, "show", "port", "2/1/1/"], [f"2/1/1/{port}" for port in range(1, 5)]),
            ([*CHASSIS, "call", "ndm_get_role_by_node", "2/M"], ["2/M1", "2/M2"]),
            (["call", "ndm_get_static_port_by_lsm_key", "1", "2", "5", "ETH_4"], ["ETH_40G", "ETH_400G"]),
            (["get", "card_info", ""], []), (["--store", "men:", "get", "card_info", ""], []), (["shwo", ""], []),
            ([*CHASSIS, "get", "nonsense", ""], []), (["--load", "none.json", "get", "card_info", ""], []),
        ]:
            with self.subTest(words):
                self.assertEqual(complete(*words), expected)

    # A shell that waits for a store takes the terminal from its person.
    def test_a_store_that_does_not_answer(self):
        with tempfile.TemporaryDirectory() as folder:
            os.mkfifo(folder + "/never")
            done = dmq("complete", "--load", folder + "/never", "get", "card_info", "", DMQ_COMPLETION_SECONDS="")
            self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", ""))

    # = and : end a word for readline, not for dmq; a value is to be typed behind the =.
    def test_the_shells(self):
        for shell, begin in [
            (["bash", "--norc", "-i"], ". dmq/completion/dmq.bash; PS1=o'k> '"),
            (["zsh", "-f", "-i"],
             "fpath=($PWD/dmq/completion $fpath); autoload -Uz compinit; compinit -u -D; PS1=o'k> '"),
        ]:
            with self.subTest(shell[0]):
                if not shutil.which(shell[0]):
                    self.skipTest(shell[0] + " is not installed")
                terminal = Terminal(*shell, **ENV)
                self.addCleanup(terminal.close)
                self.assertTrue(terminal.shows(begin + "\n", "ok> "))
                for keys, shown in [("dmq shel\t", "shell "), ("dmq show slots psl\t7", "pslot=7"),
                                    ("dmq --store redis+\tx", "redis+unix:///x"),
                                    ("dmq load examples/chas\t", "examples/chassis.json "),
                                    ('dmq --load "examples/chassis.json get card_inf\tx\f', "card_infx"),
                                    ('dmq --store mem:x --load "examples/chassis.json" get card_info devid=2 slotid=30 '
                                     "sslotid=\t", " sslotid=0 ")]:
                    self.assertTrue(terminal.shows("\x15" + keys, shown), keys)


class Manual(unittest.TestCase):
    # A page that is behind the program tells of options that do not work. `make docs` writes it.
    def test_the_page_is_what_the_commands_say(self):
        self.assertEqual((PROJECT / "man/dmq.1").read_text(), dmq("help", "--man").stdout)

    def test_every_function_of_the_library(self):
        named = set(re.findall(r"\b\w+(?=\(\))", (PROJECT / "man/tq_dm_cache.3").read_text()))
        exported = {name for library in ["cache", "platform"] for name in subprocess.check_output(
            [sys.executable, PROJECT / "scripts/exported_symbols.py", library], text=True).split()}
        self.assertLessEqual(named, exported)


class Store(unittest.TestCase):
    def test_which_one(self):
        for words, variable, code in [(["get"], "men:", 2), (["--store", "mem:", "get"], "men:", 1), (["get"], "", 1)]:
            self.assertEqual(dmq(*words, DMQ_STORE=variable).returncode, code, (words, variable))

    # Whoever may list processes could else read the store's password.
    def test_a_password_is_shown_to_nobody(self):
        with subprocess.Popen([DMQ, "--store", "mem:x://user:pass:w@rd@host", "shell"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, env=running.ENV) as shell:
            shell.stdin.write(b"echo ready\n")
            shell.stdin.flush()
            self.assertEqual(shell.stdout.readline(), b"ready\n")
            words = Path(f"/proc/{shell.pid}/cmdline").read_bytes().split(b"\0")
            shell.stdin.close()
        if words[0] == DMQ.encode():  # and not an emulator, which keeps words of its own
            self.assertEqual(words[2], b"mem:" + b"*" * 18 + b"@host")
        self.assertIn(" redis://tom:****@h; ", dmq("redis://tom:s3cr@h").stderr)
        for words in ["--store men://:pass:w@rd@host get", "men://pass:w@rd@host", "--store redis:/u:pass:w@rd@host get",
                      "--store redis//u:w@rd@host get", "--loda x://pass:w@rd@host"]:
            messages = [line for line in dmq(*words.split()).stderr.splitlines() if line.startswith("dmq: ")]
            self.assertTrue(messages)
            self.assertNotIn("w@rd", "".join(messages))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
