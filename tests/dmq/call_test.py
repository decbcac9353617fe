"""dmq call and explain: every query by its name, its arguments, its answer, and why there is none. Argument: dmq."""

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
            ("ndm_get_role_by_node 1/M1", {}, {"result": "DM_ROLE_MASTER"}),
            ("ndm_get_role_by_node 02:00:04:02:1E:00", {}, {"result": "DM_ROLE_SLAVE"}),
            ("ndm_card_is_online switch-2 m1 0", {}, {"result": "yes"}),
            ("ndm_get_sslot_by_lport switch-1 1/1 49", {}, {"result": ""}),
            ("ndm_get_port_type 1/1/1/1", {"port_type": 3}, {"result": "", "port_type": "ETH_1000M"}),
            ("ndm_get_node_type_from_card_type SUB-4GE", {}, {"result": "DM_TYPE_SUB_LC"}),
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
        self.assertEqual(answer("ndm_get_port_type", "TwentyFiveGigE 2/2/1")["out"], {"port_type": 8})
        self.assertEqual(answer("ndm_get_role_by_node", "Slot 2/M2")["meaning"], {"result": "DM_ROLE_CANDIDATE"})
        self.assertEqual(answer("ndm_get_static_port_by_lsm_key", "1", "2", "5", "25g")["out"]["out"]["index"],
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
                ("ndm_get_static_port_by_lsm_key 1 2 5 ETH_26G", 2, "ETH_200G, ETH_400G"),
                ("ndm_get_role_by_node 1/M9", 2, "(did you mean 1/M1?); there are 1/1, 1/2, "),
                ("ndm_get_role_by_node M1", 2, "more than one is called M1; there are 0x0c041e00, 0x0c081e00"),
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

    # Who meets a -1 is told where its cause is looked up.
    def test_points_to_the_cause(self):
        for words, told in [("ndm_get_slot_num -1", "dmq: explain ndm_get_slot_num -1 tells why\n"),
                            ("ndm_get_slot_num 1", ""), ("ndm_card_is_online 1 9 0", "")]:
            self.assertEqual(dmq(*CHASSIS, "call", *words.split()).stderr, told)


class Explain(unittest.TestCase):
    # A cause that is not the cause costs whoever believes it a day.
    def test_reads_and_causes(self):
        changes = ["delete port_static t_dev=1 t_slot=2 t_port=7 t_type=8 t_sslot=0", "delete local_port_info",
                   "set vsd_port t_vsdid=0 t_dev=1 t_slot=2 t_port=5 t_type=8 t_sslot=0 ifx=62",
                   "delete vsd_port t_vsdid=0 t_dev=1 t_slot=2 t_port=6 t_type=8 t_sslot=0"]
        port = "has devid=1 slot=2 port=7 with ifx=63"
        no_static = ", not indexed: its static port (row 7, same place) is not cached"
        rows = [
            ("ndm_card_is_online 1 30 0", 1, "17 key +", "the answer comes from the cache, row 17 p_dev.card_info"),
            ("ndm_card_is_online 1 9 0", 0, "17 key -", "row 17 p_dev.card_info has no devid=1 slotid=9 sslotid=0 (20 objects)"),
            ("ndm_get_global_port_by_ifx 0 63", -1, "30 ifx 63 -", f"row 30 {port}{no_static}"),
            ("ndm_get_global_port_by_ss_phyid 1 1 7", -1, "30 ss_phyid 100729095 -", f"row 30 {port}, which may be meant{no_static}"),
            ("ndm_get_static_port_by_dm_phyid 1 1 0 7", -1, "30 dm_phyid 16842759 -, 31 dm_phyid 16842759 -", f"row 31 {port}, which may be meant{no_static}"),
            ("ndm_get_global_port_by_lsm_key 1 2 7 8", -1, "30 lsm 134283783 -", f"row 30 {port}{no_static}"),
            ("ndm_get_global_port_by_ifx 0 62", -1, "30 ifx 62 -", "row 30 has devid=1 slot=2 port=5 with ifx=62, which has that "
             "key, and is not found by it: another one had it too and took it along when it went, or the client has changed the "
             "tree"),
            ("ndm_get_global_port_by_ifx 0 9999", -1, "30 ifx 9999 -", "no object of row 30 p_dev.vsd_port has that key (399 objects)"),
            ("ndm_get_my_lport_num", -1, "10 key -", "row 10 p_dev.local_port_info is empty"),
            ("_ndm_get_my_lport_num 1", -1, "10 key -, 10 record -", "neither the cache nor the store has row 10 p_dev.local_port_info"),
            ("ndm_get_slot_num_rt 2", 8, "16 key +", "the answer comes from the cache, row 16 p_dev.device_info"),
            ("ndm_is_vsl_card 1 9", 0, "13 key +, 21 walk +", "none of the 4 objects of row 21 p_dev.vsl_port_info fits"),
            ("ndm_get_poe_support_by_objid 1/1/5", 0, "17 key +, 11 type 200 +", "that is what row 11 p_dev.dm_card_stattr_t says"),
            ("ndm_get_physlot_by_userslot 1 32 0", -1, "16 key +", "all that it read was found, and has no answer: row 16 "
             "p_dev.device_info is the last; the query says: invalid userslot: 32. min 1, max 4"),
            ("ndm_get_objid_by_slot_lport 1 77 3", -1, "", "slot=77 is refused: with 1 the query goes on; the query says: Invalid parameter"),
            ("ndm_mb_is_local_master 1 7", 0, "", "slot=7 is refused: with 0 the query goes on"),
            ("ndm_get_userslot_from_boardname M7", -1, "", "name=M7 is refused, nothing was read"),
            ("ndm_get_my_devid_rt", -1, "", "it reads nothing: that is its only answer"),
            ("ndm_get_node_from_dev_slot_cpuid 2 3 1", 0, "", "the answer is computed from the arguments"),
        ]
        done = dmq(*CHASSIS, lines=["sync", *changes] + [f"explain --json {words}" for words, *_ in rows])
        told = [json.loads(line) for line in done.stdout.splitlines() if line.startswith('{"function"')]
        self.assertEqual(len(told), len(rows), done)
        for (words, result, reads, cause), answer in zip(rows, told):
            with self.subTest(words):
                read = [f"{one['row']} " + (f"{one['tree']} {one['key']}" if "tree" in one else one["how"]) +
                        (" +" if one["found"] else " -") for one in answer["reads"]]
                self.assertEqual((answer["result"], ", ".join(read), answer["because"]), (result, reads, cause))

    # A query over a chip makes hundreds of reads, which would push the answer off the terminal.
    def test_reads_that_are_alike_are_told_once(self):
        told = dmq(*CHASSIS, "explain", "ndm_get_static_port_in_chip", "1", "0", "0").stdout.splitlines()
        self.assertEqual(told[4:5] + told[-2:-1] + [len(told)], ["  and 23 more like it", "  and 460 more like them", 9], told)

    # A cache that is not live is explained as it is; what it lacks may come from the store.
    def test_a_cache_that_is_not_live(self):
        done = dmq(*CHASSIS, lines=["store lose 1", "explain ndm_get_slot_num_rt 2 --timeout 0.2",
                                    "explain ndm_is_vsu --timeout 0.2"])
        self.assertIn("""
  row 16 p_dev.device_info, devid=2 ........................ not cached
  store, row 16 p_dev.device_info, devid=2 ................. found
  the answer comes from the store, row 16 p_dev.device_info
""", done.stdout)
        self.assertRegex(done.stdout, "because: row 13 p_dev.dp_lib_my_chss_info is not live yet: row 1 .* not been confirmed")
        self.assertRegex(done.stderr, "line 2: not synchronised after 0.2 s: row 1")
        self.assertEqual(done.returncode, 4)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
