// The file grows by a line at a time, so shells that run beside each other both add to it, and is shortened when it is read.
#include "dmq/history.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>

namespace dmq {

namespace {

constexpr size_t most_lines = 1000;

std::string environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

// Empty: there is no place for it.
std::filesystem::path file() {
    const std::string state = environment("XDG_STATE_HOME"), home = environment("HOME");
    if (state.starts_with('/')) return std::filesystem::path(state) / "dmq/history";
    return home.starts_with('/') ? std::filesystem::path(home) / ".local/state/dmq/history" : std::filesystem::path();
}

void append(const std::filesystem::path &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) return;
    std::ignore = write(fd, text.data(), text.size());
    close(fd);
}

}  // namespace

std::vector<std::string> remembered_lines() {
    std::vector<std::string> lines;
    std::ifstream in(file());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    const bool is_long = lines.size() > 2 * most_lines;
    if (lines.size() > most_lines) lines.erase(lines.begin(), lines.end() - most_lines);
    if (!is_long) return lines;
    std::string text;
    for (const auto &line : lines) text += line + "\n";
    const std::filesystem::path shorter = file() += ".shorter";
    std::error_code ignored;
    std::filesystem::remove(shorter, ignored);
    append(shorter, text);
    std::filesystem::rename(shorter, file(), ignored);
    return lines;
}

void remember_line(const std::string &line) {
    const std::filesystem::path path = file();
    if (path.empty()) return;
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    append(path, line + "\n");
}

}  // namespace dmq
