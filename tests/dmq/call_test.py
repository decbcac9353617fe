"""dmq call: every query by its name, its arguments, its answer and exit code. Argument: dmq."""

import json
import re
import sys
import unittest

from running import CHASSIS, PROJECT, dmq


def answer(*words):
    return json.loads(dmq(*CHASSIS, "--json", "call", *words).stdout)


class Call(unittest.TestCase):
    # A query that the list lacks is one that nobody can ask.
    def test_every_query_is_listed(self):
        listed = json.loads(dmq("call", "--list", "--json").stdout)
        headers = "".join(path.read_text() for path in (PROJECT / "include/tq_dm_cache/ndm").iterdir())
        self.assertEqual(sorted(query["function"] for query in listed),
                         sorted(re.findall(r"^DM_API [^;]*?(\w+)\(", headers, re.MULTILINE)))
        self.assertEqual([query["function"] for query in listed if not query["callable"]],
                         ["ndm_port_obj_free", "ndm_lib_subcribe", "ndm_lib_subcribe_com", "ndm_vsl_cmp_ap"])

    # A number that somebody reads wrongly sends them to the wrong card.
    def test_answers_say_what_they_mean(self):
        node = "0x0c081e00: device 2, slot 30, sub-slot 0"
        for words, out, meaning in [
            ("ndm_get_slaver_node", {"node": 0x0C081E00}, {"result": "", "node": node}),
            ("ndm_get_objid_by_slot_lport 1 3 288", {"objid": 0x14042320},
             {"result": "", "objid": "0x14042320: type 5, device 1, slot 3, sub-slot 0, logical port 288"}),
            ("ndm_get_port_type 1/1/5", {"port_type": 8}, {"result": "", "port_type": "ETH_25G"}),
            ("ndm_get_role_by_node 1/30/0", {}, {"result": "DM_ROLE_MASTER"}),
            ("ndm_indep_get_slave_node", {}, {"result": node}),
            ("ndm_card_is_online 1 30 0", {}, {"result": "yes"}),
            ("ndm_get_my_card_multi_lport", {"lports": [45, 46, 47, 48], "num": 4},
             {"result": "", "lports": [""] * 4, "num": ""}),
            ("ndm_get_my_lchips", {"chips": [1, 1]}, {"result": "", "chips": ["", ""]}),
            ("ndm_get_device_sn 1", {"serial": "DEV1"}, {"result": "", "serial": ""}),
            ("ndm_get_system_l3_mac", {"mac": "02:00:03:00:00:02"}, {"result": "", "mac": ""}),
            ("ndm_get_dev_slot_from_node 5/1/0", {"devid": 5, "slot": 1}, {"result": "", "devid": "", "slot": ""}),
        ]:
            with self.subTest(words):
                told = answer(*words.split())
                self.assertEqual((told["answered"], told["out"], told["meaning"]), (True, out, meaning))
        self.assertEqual(answer("ndm_get_static_port_by_lsm_key", "1", "2", "5", "ETH_25G")["out"]["out"]["index"],
                         {"t_dev": 1, "t_slot": 2, "t_port": 5, "t_type": 8, "t_sslot": 0})
        self.assertEqual(len(answer("ndm_get_global_port_in_chip", "1", "1", "0")["out"]["ports"]), 24)

    # A script goes by the exit code: a no, nothing found, and a question that was not understood. A conversion needs no
    # store; a query that reads an empty one is not to be believed.
    def test_exit_codes(self):
        for store, words, code, message in [
            ([], "ndm_get_node_from_dev_slot_cpuid 2 3 1", 0, "0x"), ([], "ndm_get_my_lslotid", 1, "is empty"),
            ([], "ndm_calculate_tipc_node 2 3 1", 1, "is empty"),
            *((CHASSIS, *row) for row in [
                ("ndm_is_vsu", 0, "result  1 (yes)"), ("ndm_device_is_online 3", 1, "result  0 (no)"),
                ("ndm_get_my_lslotid", 0, "result      0"), ("ndm_get_node_type 1/9/0", 1, "DM_TYPE_UNKNOWN"),
                ("ndm_get_poe_support_by_objid 1/1/5", 1, "support  0 (no)"), ("ndm_get_slot_num -1", 1, "no answer"),
                ("ndm_get_global_port_in_chip 1 9 0", 1, "ports   []"),
                ("ndm_get_physlot_by_userslot 1 32 0", 1, "pslot   -1"),
                ("ndm_get_slot_nun 1", 2, "did you mean ndm_get_slot_num?"),
                ("ndm_port_obj_free", 2, "only a program has"),
                ("ndm_get_slot_num", 2, "int32_t ndm_get_slot_num(int32_t devid)"),
                ("ndm_get_slot_num 1 2", 2, "slot_num devid"),
                ("ndm_get_slot_num 0x80000000", 2, "-2147483648 to 2147483647"),
                ("ndm_get_cpu_num 0x12zz", 2, "0 to 4294967295"), ("_ndm_get_chip_family 1 256", 2, "0 to 255"),
                ("ndm_get_cpu_num 1/30", 2, "device/slot/sub-slot"),
                ("ndm_get_static_port_by_lsm_key 1 2 5 ETH_26G", 2, "p_intf.intftype_e"),
            ])]:
            with self.subTest(words):
                done = dmq(*store, "call", *words.split())
                self.assertEqual((done.returncode, message in done.stdout + done.stderr), (code, True), done)

    # A request to reset a card that is not there must not reach the manager of the cards; any other must.
    def test_a_request_reaches_the_store(self):
        for node, code in [("1/30/0", 0), ("1/9/0", 1)]:
            done = dmq(*CHASSIS, lines=[f"call ndm_reset_module_by_node_causelly {node} heat dmq",
                                        "delete dm_lib_reset_req mod_name=dmq cause=heat action=1 sn=0"])
            self.assertEqual((done.returncode, "no such object" in done.stderr), (code, code == 1), done)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
