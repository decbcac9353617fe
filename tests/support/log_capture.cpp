// The log as tests compare it.
#include "tests/support/log_capture.h"

#include "tq_dm_cache/dm_cache.h"

#include <cstdarg>
#include <regex>

std::string text(const char *format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return line;
}

std::string at_threshold(int threshold, const std::vector<std::string> &lines, int query_threshold) {
    std::string all;
    for (std::string line : lines) {
        const bool of_queries = line[0] == 'l';
        if (of_queries) line.erase(0, 1);
        if ((of_queries ? query_threshold : threshold) > line[0] - '0') continue;
        const size_t end = line.find('>'), colon = line.find(':');
        const bool tagged = colon < end;
        all += "[DM-CACHE]<" + (tagged ? line.substr(2, colon - 2) : "dm_cache") + ":#:";
        all += line.substr(tagged ? colon + 1 : 2);
    }
    return all;
}

LogCapture::LogCapture(int threshold, int query_threshold) : Capture(STDOUT_FILENO) {
    g_dm_cache_level = threshold;
    g_ndm_lib_dbg_lvl = query_threshold;
}

std::string LogCapture::take() {
    static const std::regex place("(\\[DM-CACHE\\]<\\w+:)[0-9]+:");
    return std::regex_replace(Capture::take(), place, "$1#:");
}
