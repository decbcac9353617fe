// Catches standard output in an anonymous file in memory.
#include "tests/support/log_capture.h"

#include "tq_dm_cache/dm_cache.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
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

LogCapture::LogCapture(int threshold, int query_threshold)
    : file_(memfd_create("log", MFD_CLOEXEC)), stdout_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    dup2(file_, STDOUT_FILENO);
    g_dm_cache_level = threshold;
    g_ndm_lib_dbg_lvl = query_threshold;
}

// What nobody took is passed on: it may be the report of a failed test.
LogCapture::~LogCapture() {
    const std::string rest = take();
    dup2(stdout_, STDOUT_FILENO);
    std::fputs(rest.c_str(), stdout);
    close(stdout_);
    close(file_);
}

std::string LogCapture::take() {
    std::fflush(stdout);
    std::string written(static_cast<size_t>(lseek(file_, 0, SEEK_END) - taken_), '\0');
    taken_ += pread(file_, written.data(), written.size(), taken_);
    static const std::regex place("(\\[DM-CACHE\\]<\\w+:)[0-9]+:");
    return std::regex_replace(written, place, "$1#:");
}
