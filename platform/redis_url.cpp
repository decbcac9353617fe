// URLs of Redis stores, piece by piece. Reads the environment; no state, no lock.
#include "platform/redis_url.h"

#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace tq {

namespace {

constexpr std::string_view tcp = "redis://";
constexpr std::string_view unix_socket = "redis+unix://";
constexpr int shortest_probe_ms = 100, longest_probe_ms = 600'000;

[[noreturn]] void refuse(const char *why) {
    throw std::invalid_argument(why);
}

// Takes off the front what lies before the first of these characters.
std::string_view take_until(std::string_view &text, std::string_view stops) {
    const std::string_view front = text.substr(0, text.find_first_of(stops));
    text.remove_prefix(front.size());
    return front;
}

int number(std::string_view text, int least, int most, const char *fault) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) refuse(fault);
    return value;
}

std::string decoded(std::string_view text) {
    std::string plain;
    for (; !text.empty(); text.remove_prefix(1)) {
        if (text.front() != '%') {
            plain += text.front();
            continue;
        }
        unsigned char value = 0;
        const std::string_view digits = text.substr(1, 2);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        if (error != std::errc() || digits.size() != 2 || end != digits.data() + 2 || value == 0)
            refuse("a % needs two hexadecimal digits, not 00");
        plain += static_cast<char>(value);
        text.remove_prefix(2);
    }
    return plain;
}

std::string from_environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

void take_credentials(RedisUrl &url, std::string_view &authority) {
    const size_t at = authority.rfind('@');
    if (at != std::string_view::npos) {
        std::string_view user = authority.substr(0, at);
        authority.remove_prefix(at + 1);
        url.user = decoded(take_until(user, ":"));
        if (!user.empty()) url.password = decoded(user.substr(1));
    }
    if (url.user.empty()) url.user = from_environment("TQ_STORE_USER");
    if (url.password.empty()) url.password = from_environment("TQ_STORE_PASSWORD");
}

void take_host(RedisUrl &url, std::string_view authority) {
    const bool bracketed = authority.starts_with('[');  // an IPv6 address
    if (bracketed) authority.remove_prefix(1);
    url.host = take_until(authority, bracketed ? "]" : ":");
    if (bracketed && authority.empty()) refuse("the bracket is not closed");
    if (bracketed) authority.remove_prefix(1);
    if (url.host.empty()) refuse("the host is missing");
    if (authority.empty()) return;
    if (authority.front() != ':') refuse("the port is no number from 1 to 65535");
    url.port = number(authority.substr(1), 1, 65535, "the port is no number from 1 to 65535");
}

void take_options(RedisUrl &url, std::string_view options) {
    constexpr std::string_view probe = "?probe=";
    if (options.empty()) return;
    if (!options.starts_with(probe)) refuse("the only option is probe=MS");
    url.probe = std::chrono::milliseconds(number(options.substr(probe.size()), shortest_probe_ms, longest_probe_ms,
                                                 "the probe time is no number from 100 to 600000"));
}

std::string shown(const RedisUrl &url) {
    const std::string user = url.user.empty() ? "" : url.user + "@";
    if (!url.socket.empty()) return std::string(unix_socket) + user + url.socket;
    const std::string host = url.host.find(':') == std::string::npos ? url.host : "[" + url.host + "]";
    return std::string(tcp) + user + host + ":" + std::to_string(url.port);
}

}  // namespace

bool is_redis_url(const std::string &url) {
    return url.starts_with(tcp) || url.starts_with(unix_socket);
}

RedisUrl parse_redis_url(const std::string &url) {
    RedisUrl parsed;
    const bool is_unix = url.starts_with(unix_socket);
    std::string_view rest = std::string_view(url).substr((is_unix ? unix_socket : tcp).size());
    std::string_view authority = take_until(rest, "/?");
    const std::string_view path = take_until(rest, "?");
    take_credentials(parsed, authority);
    take_options(parsed, rest);
    if (!is_unix) {
        take_host(parsed, authority);
        if (path.size() > 1) refuse("a server is named without a path: every database is in it");
    } else {
        if (!authority.empty() || path.size() < 2) refuse("the path of the socket begins with a third slash");
        parsed.socket = decoded(path);
    }
    parsed.shown = shown(parsed);
    return parsed;
}

std::string url_without_secret(const std::string &url) {
    if (is_redis_url(url)) {
        try {
            return parse_redis_url(url).shown;
        } catch (const std::invalid_argument &) {
        }
    }
    const size_t colon = url.find(':'), at = url.rfind('@');
    if (colon == std::string::npos || at == std::string::npos || at < colon) return url;
    return url.substr(0, colon + 1) + "..." + url.substr(at);
}

}  // namespace tq
