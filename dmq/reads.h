// What a query has read, kept for whoever explains its answer. The library tells it while the query runs (dm_cache_trace.h), under
// the shared side of the cache lock; what is kept is dmq's own.
#pragma once

#include <vector>

#include "dmq/question.h"
#include "tq_dm_cache/dm_cache_trace.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

struct Read {
    int32_t row;
    int32_t how;   // DM_CACHE_READ_..
    int32_t tree;  // of a read by tree
    int32_t code;
    int64_t tree_key;
    bool found;              // one object that was asked for; of walks and scans: any
    Json key;                // by field; null without one
    std::string found_name;  // the key of what a tree has found, as words

    bool of_store() const { return how >= DM_CACHE_READ_RECORD; }
    bool is_not_there() const { return of_store() && code == TQ_MOM_E_NOT_FOUND; }
};

// A query that has been asked, and how it came to its answer.
struct Road {
    Question::Answer answer;
    std::vector<Read> reads;
    std::string said;  // what the query wrote into the log first: what is the matter. May be empty
};

// Asks it on this thread. `quiet`: the log is dmq's meanwhile, so that what the query says is known.
Road walk_road(Question &question, bool quiet);

// "row 30 p_dev.vsd_port".
std::string row_name(int32_t row);

// "2 changes of the row were refused".
std::string refused_text(uint32_t count);

// The name of a row's tree: "ifx".
std::string tree_name(int32_t row, int32_t tree);

// "devid=1 slotid=3 sslotid=0", of a key by field.
std::string words_of_key(const Json &key);

// Why it did not answer, or where the answer comes from: one sentence.
std::string cause_of(const Question &question, const Road &road, const Json &values,
                     const std::vector<std::string> &words);

}  // namespace dmq
