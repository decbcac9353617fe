// The listener of a query's reads, and of what it says in the log meanwhile.
#include "dmq/reads.h"

#include <algorithm>
#include <thread>

#include "dmq/names.h"
#include "dmq/output.h"
#include "dmq/table.h"
#include "dmq/topology.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

void keep_read(const dm_cache_read *read, void *word) {
    const bool counted =
        read->how == DM_CACHE_READ_WALK ? read->code > 0 : read->how == DM_CACHE_READ_SCAN && !read->code;
    static_cast<Road *>(word)->reads.push_back(
        {read->type, read->how, read->tree, read->code, read->tree_key, read->found || counted,
         read->key ? to_json(*read->key, Fields::all) : Json(),
         read->found && read->how == DM_CACHE_READ_TREE ? key_words(*read->found) : ""});
}

// Who asks: other threads of the library have their own things to say.
struct Asker {
    std::thread::id thread = std::this_thread::get_id();
    std::string *said;
};

void keep_line(int32_t, const char *, const char *, int32_t, const char *text, void *word) {
    const auto &asker = *static_cast<Asker *>(word);
    if (std::this_thread::get_id() == asker.thread && asker.said->empty()) *asker.said = text;
}

// The log is dmq's while it lives.
class LogHeard {
public:
    explicit LogHeard(std::string *said) : asker_{.said = said} {
        dm_cache_set_log(keep_line, &asker_);
        set_levels(1, 1);
    }
    LogHeard(const LogHeard &) = delete;
    ~LogHeard() {
        set_levels(cache_level_, library_level_);
        dm_cache_set_log(nullptr, nullptr);
    }

private:
    static void set_levels(int32_t cache, int32_t library) {
        __atomic_store_n(&g_dm_cache_level, cache, __ATOMIC_RELAXED);
        __atomic_store_n(&g_ndm_lib_dbg_lvl, library, __ATOMIC_RELAXED);
    }

    int32_t cache_level_ = g_dm_cache_level, library_level_ = g_ndm_lib_dbg_lvl;
    Asker asker_;
};

}  // namespace

Road walk_road(Question &question, bool quiet) {
    Road road{};
    std::optional<LogHeard> heard;
    if (quiet) heard.emplace(&road.said);
    dm_cache_trace(keep_read, &road);
    road.answer = question.ask();
    dm_cache_trace(nullptr, nullptr);
    return road;
}

std::string row_name(int32_t row) {
    const ObjectKind *const kind = kind_of_row(row);
    return "row " + std::to_string(row) + (kind ? std::string(" ") + kind->type->name : "");
}

std::string refused_text(uint32_t count) {
    return counted(count, "change of the row was refused", "changes of the row were refused");
}

std::string tree_name(int32_t row, int32_t tree) {
    static const char *const of_ports[] = {"ifx", "dm_phyid", "ss_phyid", "lsm"};
    static const char *const of_local_ports[] = {"unit_cport", "lport"};
    if (row == DM_ROW_VSD_PORT || row == DM_ROW_VSD_PORT_ATTR) return of_ports[tree];
    return row == DM_ROW_UNIT_CPORT_INFO ? of_local_ports[tree] : "type";
}

std::string words_of_key(const Json &key) {
    std::string words;
    for (const auto &[field, value] : key.items()) {
        if (!is_never_compared(field) || value != 0)
            words += (words.empty() ? "" : " ") + field + "=" + cell_text(value);
    }
    return words;
}

}  // namespace dmq
