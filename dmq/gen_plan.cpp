// Which card types there are, where cards sit and how their ports are numbered.
#include "dmq/gen_plan.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "dmq/names.h"
#include "dmq/topology.h"

namespace dmq {

namespace {

void need(const char *what, int value, int least, int most) {
    if (value >= least && value <= most) return;
    throw Failure(exit_usage, "gen: " + std::string(what) + " needs " + std::to_string(least) + " to " +
                                  std::to_string(most) + ", not " + std::to_string(value));
}

// A slot's logical ports must fit a byte, and all ports the cache's list of a kind.
void check(const GenOptions &options) {
    need("--devices", options.devices, 1, 16);
    need("--boards", options.boards, 1, 2);
    need("--cards", options.cards, 1, 20);
    need("--fabrics", options.fabrics, 0, 8);
    need("--subcards", options.subcards, 0, 5);
    const int slot_ports = options.ports + (options.box ? 0 : options.subcards * subcard_ports);
    need("--ports", options.ports, options.devices > 1 ? 2 * vsl_ports : 1, 255 - (slot_ports - options.ports));
    const int total =
        options.devices * (options.box ? options.ports : options.cards * options.ports + slot_ports - options.ports);
    if (total > port_limit) {
        throw Failure(exit_usage, "gen: these are " + std::to_string(total) + " ports; the cache holds " +
                                      std::to_string(port_limit) + " of a kind");
    }
}

// Ports in order over as few chips as carry them evenly. The last four can be fibre or copper; the last of all are the
// ones that join devices.
std::vector<GenPort> line_ports(int count, int mbps) {
    const int chips = (count + ports_per_chip - 1) / ports_per_chip;
    const int each = (count + chips - 1) / chips;
    std::vector<GenPort> ports;
    for (int i = 0; i < count; ++i) {
        ports.push_back({.lport = i + 1,
                         .user_port = i + 1,
                         .subslot = 0,
                         .unit = i / each,
                         .cport = i % each + 1,
                         .lanes = 1,
                         .mbps = mbps,
                         .combo = i >= count - subcard_ports,
                         .poe = false,
                         .vsl = i >= count - 2 * vsl_ports});
    }
    return ports;
}

// A carrier lists its sub-cards' ports behind its own, on its last chip.
void add_subcard_ports(std::vector<GenPort> &ports, int subcards) {
    for (int subslot = 1; subslot <= subcards; ++subslot)
        for (int i = 1; i <= subcard_ports; ++i) ports.push_back(subcard_port(ports.back(), subslot, i));
}

int number_of(std::string_view text) {
    return whole_number<int>(text).value_or(0);
}

// A line of a layout: lanes separated by commas, in any order, panel port, speed in Mb/s. The lowest lane names the port of the
// chip. Nothing: it is no such line.
std::optional<GenPort> layout_port(const std::string &line, std::set<int> &lanes) {
    std::istringstream words(line);
    std::string list, panel_port, speed;
    words >> list >> panel_port >> speed;
    if (std::string more; words >> more) return std::nullopt;
    std::istringstream each(list);
    for (std::string lane; std::getline(each, lane, ',');)
        if (number_of(lane) < 1 || number_of(lane) > 255 || !lanes.insert(number_of(lane)).second) return std::nullopt;
    GenPort port{};
    port.panel_port = number_of(panel_port);
    port.mbps = number_of(speed);
    if (lanes.empty() || list.back() == ',' || port.panel_port < 1 || port.panel_port > 255 || port.mbps < 1)
        return std::nullopt;
    port.cport = *lanes.begin();
    port.lanes = static_cast<int>(lanes.size());
    port.vsl = true;
    return port;
}

// Ports that share a panel port are its members, 1, 2, .. by their lanes. The first has the panel port's number, as a port that is
// whole has; the others have numbers behind all panel ports.
void number_ports(std::vector<GenPort> &ports) {
    std::sort(ports.begin(), ports.end(), [](const GenPort &a, const GenPort &b) {
        return std::tie(a.panel_port, a.cport) < std::tie(b.panel_port, b.cport);
    });
    int last = ports.empty() ? 0 : ports.back().panel_port;
    for (size_t i = 0; i < ports.size(); ++i) {
        const bool is_more = i > 0 && ports[i - 1].panel_port == ports[i].panel_port;
        const bool has_more = i + 1 < ports.size() && ports[i + 1].panel_port == ports[i].panel_port;
        ports[i].member = is_more ? ports[i - 1].member + 1 : has_more ? 1 : 0;
        ports[i].lport = ports[i].user_port = is_more ? ++last : ports[i].panel_port;
    }
}

std::vector<GenPort> layout_ports(const std::string &file) {
    std::istringstream stream(read_file(file));
    if (stream.peek() == EOF) throw Failure(exit_usage, "gen: " + file + " is empty");
    std::vector<GenPort> ports;
    std::set<int> chip_ports;
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        const std::string place = "gen: " + file + ": line " + std::to_string(number) + ": ";
        std::set<int> lanes;
        const auto port = layout_port(line, lanes);
        if (!port) {
            throw Failure(exit_usage,
                          place + "needs lanes (1 to 255), panel port (1 to 255) and speed, not " + dump(line));
        }
        if (!chip_ports.insert(port->cport).second) {
            throw Failure(exit_usage,
                          place + "lane " + std::to_string(port->cport) + " is another port's lowest already");
        }
        ports.push_back(*port);
    }
    number_ports(ports);
    for (const GenPort &port : ports)
        if (port.user_port > 255) throw Failure(exit_usage, "gen: " + file + ": more ports than numbers up to 255");
    return ports;
}

const GenCardType *type_of(const GenPlan &plan, int type) {
    return &*std::find_if(plan.types.begin(), plan.types.end(), [=](const auto &t) { return t.type == type; });
}

void plan_box(GenPlan &plan) {
    const bool laid_out = !plan.options.layout.empty();
    auto ports = laid_out ? layout_ports(plan.options.layout) : line_ports(plan.options.ports, 100000);
    if (laid_out) plan.options.ports = static_cast<int>(ports.size());
    if (laid_out && plan.options.devices > 1 && plan.options.ports < 2 * vsl_ports) {
        throw Failure(exit_usage,
                      "gen: " + plan.options.layout + ": too few ports to join devices; --devices 1 makes one alone");
    }
    check(plan.options);
    int chips = 0;
    for (const GenPort &port : ports) chips = std::max(chips, port.unit + 1);
    plan.types = {{type_box_card, "BOX", "DM_TYPE_BOX", chips, 0, std::move(ports)}};
    for (int dev = 1; dev <= plan.options.devices; ++dev)
        plan.cards.push_back({dev, slot_m1, 0, 0, type_of(plan, type_box_card)});
}

// User slots 1, 2, ... lie at physical slots 0, 1, ...; the boards at the fixed ones.
void plan_chassis_cards(GenPlan &plan, int dev) {
    const auto &options = plan.options;
    const auto add = [&](int slot, int subslot, int user_slot, int type) {
        plan.cards.push_back({dev, slot, subslot, user_slot, type_of(plan, type)});
    };
    for (int i = 0; i < options.cards; ++i) {
        const bool carrier = i == 0 && options.subcards > 0;
        add(i, 0, i + 1, carrier ? type_carrier : type_line);
        for (int subslot = 1; carrier && subslot <= options.subcards; ++subslot) add(i, subslot, i + 1, type_subcard);
    }
    for (int i = 0; i < options.fabrics; ++i) add(slot_fe1 + i, 0, slot_fe1 + i, type_fabric);
    for (int i = 0; i < options.boards; ++i) add(slot_m1 + i, 0, slot_m1 + i, type_board);
}

void plan_chassis(GenPlan &plan) {
    const auto &options = plan.options;
    check(options);
    const auto ports = line_ports(options.ports, 25000);
    const int chips = ports.back().unit + 1;
    auto carrier_ports = ports;
    add_subcard_ports(carrier_ports, options.subcards);
    plan.types = {{type_board, "MB", "DM_TYPE_MB", 0, 0, {}}, {type_line, "LC", "DM_TYPE_LC", chips, 0, ports}};
    if (options.subcards > 0) {
        plan.types.push_back({type_carrier, "LC-SUB", "DM_TYPE_LC", chips, options.subcards, carrier_ports});
        plan.types.push_back({type_subcard, "SUB-4GE", "DM_TYPE_SUB_LC", 0, 0, {}});
    }
    if (options.fabrics > 0) plan.types.push_back({type_fabric, "FE", "DM_TYPE_SFC", 1, 0, {}});
    for (int dev = 1; dev <= options.devices; ++dev) plan_chassis_cards(plan, dev);
}

}  // namespace

GenPort subcard_port(const GenPort &before, int subslot, int i) {
    return {.lport = before.lport + 1,
            .user_port = i,
            .subslot = subslot,
            .unit = before.unit,
            .cport = before.cport + 1,
            .lanes = 1,
            .mbps = 1000,
            .combo = false,
            .poe = true,
            .vsl = false};
}

void make_plan(const GenOptions &options, GenPlan &plan) {
    plan.options = options;
    plan.options.box |= !options.layout.empty();
    const auto plan_devices = plan.options.box ? plan_box : plan_chassis;
    plan_devices(plan);
    plan.local = &plan.cards.front();
}

}  // namespace dmq
