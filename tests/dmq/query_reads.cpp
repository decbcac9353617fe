// Which rows does each query read? Asks every query of ndm.h over the topologies, with many values of each argument: first with a
// cache that follows nothing, so that what may come from the store does, then with one that follows everything: what is the
// matter when it does not answer then? Prints the lines of query/read_rows.inc. Usage: query_reads FILE.json...
#include <cstdio>
#include <map>
#include <set>

#include "dmq/names.h"
#include "dmq/reads.h"
#include "dmq/session.h"
#include "tq_dm_cache/dm_cache_follow.h"

using namespace dmq;

namespace {

using What = std::tuple<bool, int32_t, int32_t, int32_t>;  // of the store, row, how, tree
std::map<std::string, std::set<What>> reads_of;
std::map<std::string, std::set<std::string>> ends_of;  // without an answer

const std::map<std::string, std::vector<std::string>> values_of = {
    {"node", {"1/30/0", "1/0/0", "1/0/1", "1/9/0"}},
    {"objid", {"1/0/1", "1/0/49", "1/1/5", "1/9/1", "33", "0x14000101"}},
    {"phyid", {"1/0/1", "1/0/49", "1/1/5", "201595392"}},
    {"name", {"M1", "Z"}},
    {"cause", {"heat"}},
    {"mod_name", {"dmq"}},
    {"type", {"8", "4"}},
    {"card_type", {"100", "200", "201", "500", "9"}},
    {"device_type", {"10", "20", "9"}},
    {"chip_type", {"1", "2", "9"}},
    {"ifx", {"1", "63", "249", "9999"}},
    {"dcm_addr", {"256", "0"}},
    {"devid", {"0", "1", "2", "3", "9"}},
};
const std::vector<std::string> numbers = {"0", "1", "2", "30"};

std::string end_of(const Question &question, const Road &road) {
    if (road.reads.empty()) return question.asked().empty() ? "always" : "argument";
    const auto missing =
        std::find_if(road.reads.rbegin(), road.reads.rend(), [](const Read &read) { return !read.found; });
    if (missing != road.reads.rend()) return "row " + std::to_string(missing->row);
    return "content " + std::to_string(road.reads.back().row);
}

void note(const Query &query, const Road &road) {
    auto &reads = reads_of[std::string(query.name)];
    for (const Read &read : road.reads) {
        reads.emplace(read.of_store(), read.row, read.how, read.tree);
        // Without its static port no port is in a tree.
        if (read.how == DM_CACHE_READ_TREE && (read.row == DM_ROW_VSD_PORT || read.row == DM_ROW_VSD_PORT_ATTR))
            reads.emplace(false, DM_ROW_PORT_STATIC, DM_CACHE_READ_TREE, read.tree);
    }
}

// What a query has read from the store it may have cached.
bool anything_cached() {
    for (const ObjectKind &kind : cached_kinds())
        if (obj_sub_list[kind.row].obj_list && obj_sub_list[kind.row].obj_list->count > 0) return true;
    return false;
}

void start(tq_mom_handle *handle, bool follows) {
    if (dm_cache_init(handle, "reads") || (follows && dm_cache_wait_synced(60000)))
        throw Failure(exit_no, "not started");
}

// Every combination of the arguments' values.
void ask_all(const Query &query, tq_mom_handle *handle, bool follows) {
    std::vector<std::vector<std::string>> asked = {{std::string(query.name)}};
    std::string_view names = query.parameters;
    for (const Pass pass : query.callable.passes) {
        const std::string name(names.substr(0, names.find(' ')));
        names.remove_prefix(std::min(names.size(), name.size() + 1));
        if ((pass != Pass::s32 && pass != Pass::u32 && pass != Pass::u8 && pass != Pass::text) || name == "len" ||
            name == "reserved")
            continue;
        const auto known = values_of.find(name);
        std::vector<std::vector<std::string>> longer;
        for (const auto &words : asked) {
            for (const auto &value : known == values_of.end() ? numbers : known->second) {
                if (name == "rt" && value > "1") continue;
                longer.push_back(words);
                longer.back().push_back(value);
            }
        }
        asked = std::move(longer);
    }
    for (const auto &words : asked) {
        Question question(query, words, "call");
        const Road road = walk_road(question, /*quiet=*/true);
        note(query, road);
        if (follows && !answers(query, road.answer.result, question.values(road.answer.result)))
            ends_of[std::string(query.name)].insert(end_of(question, road));
        if (follows || !anything_cached()) continue;
        dm_cache_stop();
        start(handle, follows);
    }
}

void ask_over(const std::string &file, bool follows) {
    Settings settings;
    settings.store = "mem:" + file + (follows ? "/followed" : "");
    settings.load = {file};
    settings.timeout = 60;
    Session session(settings);
    session.open_reader();
    start(session.reader(), follows);
    for (const Query &query : queries)
        if (query.callable.call) ask_all(query, session.reader(), follows);
    dm_cache_stop();
}

std::string text_of(const What &what) {
    static const char *const hows[] = {"key", "tree", "walk", "record", "object", "scan"};
    const auto &[of_store, row, how, tree] = what;
    if (how != DM_CACHE_READ_TREE) return std::to_string(row) + " " + hows[how];
    return std::to_string(row) + (row == DM_ROW_PORT_STATIC ? " index" : " tree " + tree_name(row, tree));
}

void print_table() {
    std::printf("// What each query reads, found by asking it. Made by `make docs`: rows, and how each is read.\n");
    for (const ObjectKind &kind : cached_kinds()) std::printf("//   %d %s\n", kind.row, kind.type->name);
    for (const auto &[name, reads] : reads_of) {
        std::set<int32_t> rows;
        std::string list, how;
        std::set<std::string> told;
        for (const What &what : reads) {
            rows.insert(std::get<1>(what));
            const std::string text = text_of(what);
            if (told.insert(text).second) how += (how.empty() ? "" : ", ") + text;
        }
        for (std::string separator = "; no: "; const std::string &end : ends_of[name])
            how += std::exchange(separator, ", ") + end;
        for (const int32_t row : rows) list += (list.empty() ? "" : ", ") + std::to_string(row);
        std::printf("{name(\"%s\"), rows(%s)},%s%s\n", name.c_str(), list.c_str(), how.empty() ? "" : "  // ",
                    how.c_str());
    }
}

}  // namespace

int main(int argc, char **argv) {
    try {
        for (const bool follows : {false, true}) {
            if (follows)
                for (const ObjectKind &kind : cached_kinds()) dm_cache_sub_obj(kind.row, nullptr, 0);
            for (int i = 1; i < argc; ++i) ask_over(argv[i], follows);
        }
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "query_reads: %s\n", failure.what());
        return 1;
    }
    print_table();
    return 0;
}
