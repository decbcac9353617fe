// The capability file: an XML tree of named values, read with pugixml. No lock: a handle is used by one thread at a time.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "platform/guard.h"
#include "platform/text.h"

namespace tq {

namespace {

constexpr int32_t type_int32 = 2;
constexpr std::string_view blanks = " \t\r\n";

struct CloseFile {
    void operator()(FILE *file) const { std::fclose(file); }
};

bool read_file(FILE *file, std::string &text) {
    char buffer[4096];
    while (const size_t n = std::fread(buffer, 1, sizeof buffer, file)) text.append(buffer, n);
    return !std::ferror(file);
}

void *open_cap(const char *path) {
    const std::unique_ptr<FILE, CloseFile> file(std::fopen(path, "r"));
    if (!file && errno == ENOENT) return nullptr;

    std::string text;
    if (!file || !read_file(file.get(), text)) {
        std::fprintf(stderr, "tq_platform: capability file %s: cannot be read\n", path);
        return nullptr;
    }
    auto document = std::make_unique<pugi::xml_document>();
    const auto parsed = document->load_buffer(text.data(), text.size());
    if (parsed) return document.release();

    const auto before = text.substr(0, static_cast<size_t>(parsed.offset));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const auto column = before.size() - (before.rfind('\n') + 1) + 1;  // npos + 1 is 0: the first line
    std::fprintf(stderr, "tq_platform: capability file %s: line %td, column %zu: %s\n", path, line, column,
                 parsed.description());
    return nullptr;
}

// The first element of that path, names separated by slashes.
pugi::xml_node find(const pugi::xml_node &parent, const std::string &path) {
    const size_t slash = path.find('/');
    const std::string name = path.substr(0, slash);
    for (const pugi::xml_node &child : parent.children(name.c_str())) {
        if (slash == std::string::npos) return child;
        if (const auto found = find(child, path.substr(slash + 1))) return found;
    }
    return {};
}

int32_t parse_int32(std::string_view text, int32_t &value) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    text = text.substr(0, text.find_last_not_of(blanks) + 1);
    const auto parsed = whole_number<int32_t>(text);
    if (!parsed) return TQ_MOM_E_DAMAGED;
    value = *parsed;
    return 0;
}

}  // namespace

}  // namespace tq

using namespace tq;

void *libtq_cap_get_g_cap_init(const char *path) {
    if (!path) return nullptr;
    void *cap = nullptr;
    guarded([&] {
        cap = open_cap(path);
        return 0;
    });
    return cap;
}

int32_t libtq_cap_get_g_cap(void *cap, const char *key, int32_t type, void *value, int32_t) {
    if (!cap || !key || !value || type != type_int32) return TQ_MOM_E_ARGUMENT;
    return guarded([&] {
        const auto element = find(static_cast<pugi::xml_document *>(cap)->document_element(), key);
        if (!element) return int32_t{TQ_MOM_E_NOT_FOUND};
        return parse_int32(element.text().get(), *static_cast<int32_t *>(value));
    });
}

void libtq_cap_get_g_cap_finish(void *cap) {
    delete static_cast<pugi::xml_document *>(cap);
}
