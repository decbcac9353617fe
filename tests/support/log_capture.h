// What a test expects in the log, and what was written. One thread at a time.
#pragma once

#include <vector>

#include "tests/support/capture.h"

// The text of printf with these arguments.
__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...);

// What stands in the log when this threshold lets through what it should of these messages. Each is its level, the
// function that it names and its text, "2 dm_cache_init>param fail"; before the function may stand another file's tag,
// "2 dm_cache_port_obj:ndm_local_port_gen_key>..". The line number is not compared. A level after an l, "l2 ..", is compared
// with the other threshold.
std::string at_threshold(int threshold, const std::vector<std::string> &lines, int query_threshold = 3);

// Standard output, each line number of the log as #.
class LogCapture : Capture {
public:
    explicit LogCapture(int threshold = 0, int query_threshold = 3);  // writes g_dm_cache_level, g_ndm_lib_dbg_lvl
    std::string take();
};
