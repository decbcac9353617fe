"""dmq as a person or a script meets it: answers, refusals and exit codes. Arguments: dmq, the example clients in C and in C++."""

import csv
import io
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

from running import ARGUMENTS, CHASSIS, DMQ, PROJECT, dmq

EXAMPLE = (PROJECT / "examples/chassis.json").read_text()
CARD = "card_info devid=1 slotid=1 sslotid=0"


def entries(text):
    return sorted(json.dumps(entry, sort_keys=True) for entry in json.loads(text))


def lists(text):
    return [json.loads(line) for line in text.splitlines() if line.startswith("[")]


def mask(text):
    """What may differ from run to run: the time of a change and of a scan."""
    text = re.sub(r"(?m)^\d\d:\d\d:\d\d\.\d{3}|(?<=  0) +\d+$", "", text)
    return re.sub(" +", " ", text)


class CommandLine(unittest.TestCase):
    # A script goes by the exit code and a person by the message; either being wrong sends them astray.
    def test_refusals(self):
        for words, code, message in [
            ("shwo", 2, "there is no command shwo (did you mean show?)"),
            ("", 2, "say what to do; see dmq --help"),
            ("help shwo", 2, "there is no command shwo (did you mean show?)"),
            ("get --jsno", 2, "--jsno"),
            ("load shell", 2, "shell: No such file"),
            ("show crads", 2, "no table crads (did you mean cards?)"),
            ("get 39", 2, "row 39 holds no kind"),
            ("get vsd_prot", 2, "there is no kind vsd_prot (did you mean vsd_port?)"),
            ("get dm_lib_reset_req", 2, "is not a kind that the cache holds"),
            ("get card_info slotid=0x1zz", 2, "p_dev.card_info.index.slotid: needs a whole number"),
            ("--store men: sync", 2, "the URL ... names no store"),
            ("--load none.json sync", 2, "none.json: No such file"),
            ("gen --ports 250", 2, "--ports needs 4 to 247, not 250"),
            ("gen --devices 16 --cards 20", 2, "these are 15488 ports; the cache holds 10000"),
            ("gen --layout .", 2, "Is a directory"),
            ("show cards role>=master", 2, "role has names"),
            ("shell .", 2, "cannot read"),
            ("sync --timeout nan", 2, "needs seconds from 0 to 1000000, not nan"),
            ("watch --for=-1", 2, "needs seconds from 0 to 1000000, not -1"),
            ("store restart emtpy", 2, "knows only the word empty"),
            ("store lose 3x", 2, "needs a number"), ("store foo", 2, "; there are compare, "),
            ("watch --", 2, "say which program is to run"),
            ("store compare 17", 2, "17 is one word too many"),
            ("get card_info", 1, ""),
            (f"delete {CARD}", 1, f"p_dev.{CARD}: no such object in the store, and none of this kind"),
            ("delete card_info name=MB", 2, "only fields of the key name an object"),
            ("show nonsense", 2, "; there are system, devices, slots, cards, ports, roles, chips, device, card, port"),
            ("show roles foo=1", 2, "no column foo; there are dev, uslot, slot, sub, pslot, role, local_master, tipc, node"),
            ("show roles --sort -foo", 2, "no column foo; there are dev"),
            ("show roles role=mastr", 2, "role is never mastr; there are DM_ROLE_NONE, DM_ROLE_MASTER"),
            ("show cards online", 2, "needs column=value, not online; there are dev, "),
            ("get card_info foo=1", 2, "there are index, config_dev_type, "),
            ("sync --format xml", 2, "no format xml; there are table, json, csv"),
            ("kinds nonsense", 2, "those that the cache holds are p_dev.dp_lib_complete, "), ("show port", 2, "which port?"),
        ]:
            with self.subTest(words):
                done = dmq(*words.split())
                self.assertEqual((done.returncode, message in done.stderr), (code, True), done.stderr)

    def test_help(self):
        self.assertTrue(dmq("--help").stdout.split("\n")[2].startswith("Examples:"))
        for asked, told in [("help gen", "gen --help"), ("help", "--help"), ("help help", "help --help")]:
            self.assertEqual(dmq(*asked.split()).stdout, dmq(*told.split()).stdout)
        inside = dmq(lines=["help", "help gen"]).stdout
        self.assertTrue(inside.endswith(dmq("gen", "--help").stdout))
        self.assertNotIn("--store URL", inside)
        version = r"dmq \d+\.\d+\.\d+\ninterface libtq_dm_cache_essence\.so\.\d+\nbuild .*, \S+ [\d.]+, [^/]+\n"
        self.assertRegex(dmq("--version").stdout, f"^{version}$")

    # Half a topology in the store is a switch that is not there.
    def test_a_refused_file_writes_nothing(self):
        with tempfile.NamedTemporaryFile("w") as bad:
            bad.write(EXAMPLE[: len(EXAMPLE) // 2])
            bad.flush()
            done = dmq(lines=["load " + bad.name, "get"])
            self.assertEqual((done.returncode, done.stdout), (2, "[]\n"), done.stderr)
            self.assertIn(f"line 1: {bad.name}: entry ", done.stderr)
            self.assertEqual(dmq(*CHASSIS, "--load", bad.name, "get").stdout, "")

    # What get prints can be kept as a file and loaded again: nothing may be lost on the way.
    def test_get_prints_what_load_takes(self):
        shown = dmq(*CHASSIS, "get").stdout
        self.assertEqual(entries(shown), entries(EXAMPLE))
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["sh", PROJECT / "examples/generate.sh", sys.argv[1], folder], check=True)
            for name in ["chassis.json", "box.json"]:
                with open(os.path.join(folder, name)) as file:
                    self.assertEqual(file.read(), (PROJECT / "examples" / name).read_text(), name)

    # The tour is the first thing that a person sees, and it must be the same each time.
    def test_the_tour(self):
        runs = [dmq(*CHASSIS, "shell", "examples/tour.dmq") for _ in range(2)]
        for run in runs:
            self.assertEqual((run.returncode, run.stderr), (0, ""))
        self.assertEqual(*[mask(run.stdout) for run in runs])
        told = runs[0].stdout
        place = 0
        for step in [
            r"dmq> sync\n", r"\n 17  p_dev.card_info +1  yes +yes +20 ", r"dmq> show cards\n(.*\n){21}",
            r"\d  changed  p_dev.card_info devid=1 slotid=2 sslotid=0: is_online true -> false\n",
            r"\d  added    p_dev.device_info devid=3: ", r"\d  deleted  p_dev.device_info devid=3\n",
            r"\d  connection lost\n", r"card_info +20 +20 +0  no\n", r"slotid=4 sslotid=0: only in the store\n",
            r"\d  connection back, to the same store\n", r"\d  added    p_dev.card_info devid=2 slotid=4 ",
            r"\d  swept    p_dev.vsl_port_info ", r"resynchronised, 2 objects were gone\n",
        ]:
            found = re.compile(step).search(told, place)
            self.assertTrue(found, step)
            place = found.end()
        self.assertEqual(len(re.findall(r"  yes\n", told[place:])), 23)

    # A row that holds the whole machine back must be named, else nobody knows where to look. The exit code is that of the
    # first command that failed.
    def test_sync_names_the_row_that_holds_back(self):
        done = dmq(*CHASSIS, lines=["get nonsense", "store lose 3", "sync --timeout 1 --json", "store disconnect",
                                    "store reconnect", "sync --json"])
        first, last = lists(done.stdout)
        self.assertEqual(done.returncode, 2)
        self.assertIn("row 1 p_dev.dp_lib_complete and 2 others are not subscribed", done.stderr)
        self.assertEqual([row["subscribed"] for row in first], [False] * 3 + [True] * 20)
        self.assertTrue(all(row["subscribed"] for row in last))  # each row is scanned once more when its timer ends
        self.assertGreater(sum(row["objects"] for row in last), 0)

    def test_damaged_bytes_are_told(self):
        done = dmq(*CHASSIS, lines=[f"store damage {CARD}", "show cards pslot=1 --json", "store compare --json",
                                    f"set {CARD} name=x", f"delete {CARD}"])
        cards, compared = lists(done.stdout)
        self.assertEqual([card["dev"] for card in cards], [2])
        self.assertEqual(done.stderr.count(f"{CARD}: damaged in the store"), 1)
        self.assertIn([f"p_dev.{CARD}: damaged in the store"], [row["differences"] for row in compared])
        self.assertIn(f"line 4: p_dev.{CARD} is damaged in the store; delete it", done.stderr)
        self.assertIn(f"deleted p_dev.{CARD}\n", done.stdout)

    # An operator goes by the names on the chassis: a wrong one sends a hand to the wrong card.
    def test_show_names_slots_as_an_operator_does(self):
        for options, slots, master, port in [
            ("--devices 1 --cards 2 --boards 1 --fabrics 1", ["Slot 1", "Slot 2", "Slot FE1", "Slot M1"], "Slot M1",
             ["Slot 2", 1, 2, "0x14040102", 0, 2]),
            ("--cards 1 --boards 1 --fabrics 0", ["Slot 1/1", "Slot 1/M1", "Slot 2/1", "Slot 2/M1"], "Slot 1/M1",
             ["Slot 2/1", 0, 2, "0x14080002", 0, 2]),
            ("--box --devices 2", ["Slot 1/0", "Slot 2/0"], "Slot 1/0", ["Slot 2/0", 30, 2, "0x14081e02", 0, 2]),
        ]:
            with self.subTest(options), tempfile.NamedTemporaryFile("w") as file:
                dmq("gen", *options.split(), stdout=file)
                done = dmq("--load", file.name, lines=["show slots --json", "show system what=master --json",
                                                       "show ports --raw port=2 sub=0 --json", "show roles slot=9 --json"])
                shown, system, ports, nothing = lists(done.stdout)
                self.assertEqual([record["slot"] for record in shown], slots)
                self.assertEqual(system, [{"what": "master", "value": master}])
                self.assertEqual([ports[-1][c] for c in ["slot", "pslot", "lport", "objid", "unit", "cport"]], port)
                self.assertEqual((nothing, done.returncode), ([], 1))

    # A box whose panel ports are broken out has more ports than its panel: one that loses its name or its chip's port is no port.
    def test_gen_names_what_a_panel_port_is_broken_out_into(self):
        for lines, expected in [
            ("7 2 25000\n4,3,2,1 3 100000\n8 2 25000\n9 1 10000\n6 2 25000", [
                (1, "TenGigE 0/1", 9), (2, "TwentyFiveGigE 0/2/1", 6), (3, "HundredGigE 0/3", 1), (4, "TwentyFiveGigE 0/2/2", 7),
                (5, "TwentyFiveGigE 0/2/3", 8)]),
            ("1,2 1 25000\n2,1 2 25000", "line 2: lane 1 is another port's lowest already"),
            ("1,1 1 25000", "line 1: needs lanes (1 to 255), panel port (1 to 255) and speed"),
            ("1 255 25000\n2 255 25000", "more ports than numbers up to 255"),
        ]:
            with self.subTest(lines), tempfile.NamedTemporaryFile("w") as layout, tempfile.NamedTemporaryFile("w") as box:
                layout.write(lines)
                layout.flush()
                made = dmq("gen", "--devices", "1", "--layout", layout.name)
                box.write(made.stdout)
                box.flush()
                if isinstance(expected, str):
                    self.assertIn(expected, made.stderr)
                else:
                    ports = json.loads(dmq("--load", box.name, "show", "ports", "--raw", "--json").stdout)
                    self.assertEqual(sorted((it["port"], it["name"], it["cport"]) for it in ports), expected)

    # A script cuts columns out of a table and sorts it; a person asks for the cards that are down.
    def test_tables_by_columns_order_and_condition(self):
        plain = "--no-headings --columns"
        for words, lines in [
            (f"show cards role=master,DM_ROLE_SLAVE {plain} SLOT,role", ["Slot 1/M1  DM_ROLE_MASTER", "Slot 2/M1  DM_ROLE_SLAVE"]),
            (f"show roles role!=master role!=slave {plain} dev,node", ["1  0x0c041f00", "2  0x0c081f00"]),
            (f"show ports speed<=1G dev=2 --sort -sub,-port {plain} name", [f"GigE 2/1/{s}/{p}" for s in (2, 1) for p in (4, 3, 2, 1)]),
            (f"show ports mbps>1000 mbps!=25G {plain} ifx", []),
            (f"show ports mbps=25000 slot=2/2 ifx<268 ifx>=266 --sort -name {plain} name,ifx", [f"TwentyFiveGigE 2/2/{p}  {p + 256}" for p in (11, 10)]),
            (f"show ports objid=336068865,0x14040001 {plain} slot", ["Slot 1/1", "Slot 2/2"]),
            (f"show cards mac=020004021E00 online=true {plain} slot,name", []),
            (f"show slots card=- {plain} slot,uslot", ["Slot 1/2  2"]),
            (f"show cards slot>=2/M1 mac=02-00-04-02-1E-00,0200.0402.1f00 --sort -mac {plain} slot", ["Slot 2/M2", "Slot 2/M1"]),
            (f"call ndm_get_dev_name_by_type Chassis {plain} value", ["0", "Chassis"]),
            (f"show cards --sort role,-slot online!=yes {plain} dev,sub,role", ["1  0  -"]),
            (f"sync 16 17 --sort -objects {plain} objects,kind", ["19  p_dev.card_info", " 2  p_dev.device_info"]),
            (f"call --list local_master {plain} function", ["ndm_get_my_local_master_node", "ndm_get_my_local_master_node_rt", "ndm_mb_is_local_master"]),
            (f"call ndm_get_slaver_id {plain} name", ["result", "devid", "slot"]),
            (f"kinds dm_role_e --sort -value {plain} name", [f"DM_ROLE_{r}" for r in ("CANDIDATE", "SLAVE", "MASTER", "NONE")]),
        ]:
            with self.subTest(words):
                done = dmq(*CHASSIS, lines=["delete card_info devid=1 slotid=1 sslotid=0",
                                            "set card_info devid=1 slotid=2 sslotid=0 is_online=false", "echo ...", words])
                self.assertEqual(done.stdout.split("...\n")[1].splitlines(), lines, done.stderr)

    # A spreadsheet takes a field apart at a comma that nobody has quoted.
    def test_csv(self):
        name = 'a,"b"\x1b'
        with tempfile.TemporaryFile() as file:
            dmq(*CHASSIS, lines=[f"set {CARD} 'name={name}'", "echo ...", "show cards pslot=1 dev=1 --format csv"], stdout=file)
            file.seek(0)
            told = file.read().decode().split("...\n")[1]
        self.assertEqual(list(csv.DictReader(io.StringIO(told, newline="")))[0], {
            "dev": "1", "slot": "Slot 1/2", "sub": "0", "card": r'a,"b"\x1b', "node_type": "DM_TYPE_LC", "online": "yes",
            "role": "", "ports": "48", "chips": "2", "vsl": "no", "mac": "02:00:04:01:01:00"})
        self.assertEqual(told.count("\r\n"), 2)

    # Whoever has one name of a port wants all that is known, and to know who says it.
    def test_one_thing_whole(self):
        port, card, device = ("objid", "0x14080101"), ("node", "0x0c041e00"), ("dev", 2)
        for one, names, (column, value) in [
            ("port", ["2/2/1", "gige 7/7", "7/7", "slot 2/2/1", "336068865", "0x14080101", "257", "ifx=257", "lport=1 pslot=1 dev=2"], port),
            ("card", ["1/M1", "Slot 1/m1", "1/30/0", "0x0c041e00", "02:00:04:01:1e:00", "dcm=0x0000011e"], card),
            ("device", ["2", "switch-2", "dev2", "mac=02:00:02:02:ff:00"], device)]:
            told = lists(dmq(*CHASSIS, lines=["set vsd_port t_vsdid=0 t_dev=2 t_slot=2 t_port=1 t_type=8 t_sslot=0 'hardware_name=GigE 7/7'",
                                              *[f"show {one} {name} --json" for name in names]]).stdout)
            self.assertEqual([[thing[column] for thing in line] for line in told], [[value]] * len(names))
        facts = {one: dmq(*CHASSIS, "show", *one.split(), "--no-headings").stdout for one in ["port 257", "card 1/M1", "device 2"]}
        for one, fact, value, rows in [
            ("port 257", "port_type", "ETH_25G", "11 dm_card_stattr_t, 17 card_info"), ("port 257", "vsdid", "0", "30 vsd_port"),
            ("port 257", "bandwidth", "25000000", "30 vsd_port, 31 vsd_port_attr"), ("port 257", "poe_support", "no", "11 dm_card_stattr_t, 17 card_info"),
            ("port 257", "static_info.lane_num", "1", "7 port_static"),
            ("card 1/M1", "role", "DM_ROLE_MASTER", "15 dp_lib_grole"), ("card 1/M1", "dcm_addr", "0x0000011e", ""),
            ("card 1/M1", "ldp_online", "yes", "14 local_card_info"), ("card 1/M1", "min_lport", "-", "11 dm_card_stattr_t, 17 card_info"),
            ("device 2", "device_sn", "DEV2", "38 device_sync_info"), ("device 2", "slot_num", "8", "16 device_info")]:
            says = ", ".join("row {} p_dev.{}".format(*row.split()) for row in rows.split(", ") if row) or "-"
            self.assertRegex(facts[one], f"(?m)^{fact} +{value} +{says}$")
        for words, code, count, message in [("port 2/9/7", 1, 0, "there is no port 2/9/7 (did you mean 2/"), ("card M1", 0, 3, "2 cards are meant"),
                                            ("device 3", 1, 0, "; there are 1, 2, switch-1, switch-2")]:
            done = dmq(*CHASSIS, "show", *words.split())
            self.assertEqual((done.returncode, len(done.stdout.splitlines()), message in done.stderr), (code, count, True), done)

    def test_kinds(self):
        kinds = {kind["kind"]: kind for kind in json.loads(dmq("kinds", "--json").stdout)}
        self.assertEqual((len(kinds), kinds["p_dev.vsl_port_info"]["db"], kinds["p_dev.card_info"]["key"]), (23, 3, "devid slotid sslotid"))
        told = json.loads(dmq("kinds", "vsd_port", "--json").stdout)
        fields = {field["field"]: field for field in told["fields"]}
        self.assertEqual((told["row"], fields["t_dev"]["key"], fields["t_dev"]["range_or_unit"], fields["bandwidth"]["type"]), (30, "key", "1..16", "int32"))
        self.assertIn("ETH_25G=8", fields["llcbtype"]["values"])

    # What is not there must not look like an answer: an empty slot, a device without its type's tables, a port that no
    # query finds, a master without card, and none at all.
    def test_show_invents_nothing(self):
        done = dmq(*CHASSIS, "--load", "examples/newcomer.json",
                   lines=[f"delete {CARD}", "delete card_info devid=1 slotid=30 sslotid=0",
                          "delete port_static t_dev=1 t_slot=3 t_port=1 t_type=8 t_sslot=0", "delete dp_lib_my_info",
                          "show slots slot=1/2 --json", "show slots dev=3 --json", "show ports slot=1/3 port=1 --raw --json",
                          "show system --json", "delete dp_lib_grole", "show system what=master --json"])
        slot, unknown, port, system, master = [line[0] if len(line) == 1 else {f["what"]: f["value"] for f in line}
                                               for line in lists(done.stdout)]
        self.assertEqual((slot["type"], slot["card"], slot["online"]), ("SLOT_CARD", None, None))
        self.assertEqual(unknown, {**dict.fromkeys(slot), "dev": 3})
        self.assertEqual([port[c] for c in ["vsd", "ifx", "lport", "objid", "unit", "cport", "type"]], [None] * 7)
        self.assertEqual((system["master"], system["node type"], system["this slot"], master["value"]),
                         ("node 0x0c041e00", "DM_TYPE_UNKNOWN", "Slot 1/1", None))

    # Programs follow changes through a pipe: one object a line, old and new, nothing that did not change.
    def test_watch(self):
        done = dmq(*CHASSIS, lines=["watch card_info --json &", f"set {CARD} port_num=47", f"set {CARD} port_num=47",
                                    "get nonsense", "set card_info t_mod=1 devid=1 slotid=2 sslotid=0 --create",
                                    "store restart empty", "store reconnect", "# end"])
        told = [json.loads(line) for line in done.stdout.split("\n") if line.startswith("{")]
        self.assertEqual((told[0]["event"], told[0]["kinds"], told[0]["objects"], told[0]["live"]),
                         ("following", ["p_dev.card_info"], 20, True))
        self.assertEqual((told[1]["changes"], told[1]["phase"]), ({"port_num": {"old": 48, "new": 47}}, "live"))
        # To the cache the same object.
        self.assertEqual((told[2]["event"], told[2]["changes"]["index.t_mod"]), ("changed", {"old": 0, "new": 1}))
        events = [line["event"] for line in told[3:]]
        self.assertEqual(events[:23], ["lost", "back"] + ["swept"] * 20 + ["resynchronised"])
        self.assertEqual((events[23:], told[4]["reason"], done.returncode), ([], 2, 2))
        self.assertIn("line 4: there is no kind nonsense", done.stderr)

    # A script that goes on too early acts on what is not so yet, and one that is not told waits for ever.
    def test_wait(self):
        other = CARD.replace("slotid=1", "slotid=9")
        for words, code, said in [
            (f"{CARD} is_online=true name=LC", 0, ""), (CARD, 0, ""), (f"{other} --gone", 0, ""),
            (f"{CARD} is_online=false", 4, f"p_dev.{CARD} after 0.2 s: is_online is true, not false\n"),
            (f"{CARD} --gone", 4, "after 0.2 s: it is still there"), (other, 4, "after 0.2 s: there is no such object"),
            (f"{CARD} name=x --gone", 2, "only its key is named"), ("card_info devid=1", 2, "it lacks slotid, sslotid"),
        ]:
            limit = "--timeout 0.2" if code == 4 else ""
            done = dmq(*CHASSIS, lines=["sync", f"wait {words} {limit}"])
            self.assertEqual((done.returncode, said in done.stderr), (code, True), (words, done.stderr))

    # For each change once, in order and one at a time, until the last has run; and nothing of dmq's is left open in it.
    def test_a_program_for_each_change(self):
        program = "read -r line; echo \"$line\"; ls /proc/self/fd | wc -l; case $line in *new???one*) exit 3; esac"
        done = dmq(*CHASSIS, lines=[f"watch card_info -- sh -c '{program}' &", f"set {CARD} name=one", f"set {CARD} name=two",
                                    f"wait {CARD} name=two", "watch card_info -- nosuch &", f"set {CARD} name=three",
                                    "watch card_info -- false &", f"set {CARD} name=four"])
        told = [line for line in done.stdout.splitlines() if line.startswith("{") or line.isdigit()]
        self.assertEqual([json.loads(line)["changes"]["name"]["new"] for line in told[::2]], ["one", "two"])
        self.assertEqual((told[1::2], done.returncode), (["4", "4"], 0))
        # An emulator starts what is not there, and has it end.
        for said in ["sh ended with 3; it was to read {\"time\"", "cannot run nosuch: No such file|nosuch ended with 127",
                     "false ended with 1"]:
            self.assertEqual(len(re.findall(said, done.stderr)), 1, done.stderr)

    # What a terminal shows can be piped, and the library's own log never mixes with answers.
    def test_a_terminal_changes_nothing(self):
        piped = dmq(*CHASSIS, "--log", "0", "show", "chips")
        self.assertIn("[DM-CACHE]<", piped.stderr)
        terminal, side = os.openpty()
        dmq(*CHASSIS, "show", "chips", stdout=side)
        os.close(side)
        self.assertEqual(os.read(terminal, 1 << 16).decode().replace("\r\n", "\n"), piped.stdout)
        os.close(terminal)

    # What is wrong catches the eye, and nothing else does.
    def test_colour_of_what_is_not_well(self):
        terminal, side = os.openpty()
        environment = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}
        subprocess.run([DMQ, *CHASSIS, "shell"], stdout=side, text=True, cwd=PROJECT, timeout=60, check=True, env=environment,
                       input=f"set {CARD} is_online=false\nshow cards dev=1 slot=1/1,1/2 sub=0 --columns online,vsl")
        os.close(side)
        self.assertTrue(os.read(terminal, 1 << 16).decode().endswith("\r\nyes     no\r\n\033[31mno\033[0m      no\r\n"))
        os.close(terminal)

    def test_the_clients_of_one_page(self):
        told = [subprocess.check_output(client, text=True, timeout=30) for client in ARGUMENTS]
        self.assertEqual(told, ["row 16: device 1 was added\ndevice 1 is called switch-1\n",
                                "slot 3: a card was added\nslot 3 is online\nslot 3 has 48 ports\n"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
