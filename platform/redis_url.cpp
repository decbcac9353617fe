// URLs of Redis stores, piece by piece. Reads the environment; no state, no lock.
#include "platform/redis_url.h"

#include <sys/un.h>
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "platform/text.h"

namespace tq {

namespace {

struct Scheme {
    std::string_view prefix;
    bool by_sockets;
    bool asks_sentinels;
};
constexpr Scheme schemes[] = {{"redis://", false, false},
                              {"redis+unix://", true, false},
                              {"redis-sentinel://", false, true},
                              {"redis-sentinel+unix://", true, true}};
constexpr int server_port = 6379, sentinel_port = 26379;
constexpr int shortest_probe_ms = 100, longest_probe_ms = 600'000;
constexpr size_t longest_socket =
    sizeof(sockaddr_un::sun_path) - 1;  // what is longer would be cut off, to another path
constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
constexpr std::string_view host_signs = ":%";  // of an IPv6 address and its zone

[[noreturn]] void refuse(const char *why) {
    throw std::invalid_argument(why);
}

// Takes off the front what lies before the first of these characters.
std::string_view take_until(std::string_view &text, std::string_view stops) {
    const std::string_view front = text.substr(0, text.find_first_of(stops));
    text.remove_prefix(front.size());
    return front;
}

std::vector<std::string_view> parts_of(std::string_view text, std::string_view separator) {
    std::vector<std::string_view> parts = {take_until(text, separator)};
    while (!text.empty()) {
        text.remove_prefix(1);
        parts.push_back(take_until(text, separator));
    }
    return parts;
}

int number(std::string_view text, int least, int most, const char *fault) {
    const auto value = whole_number<int>(text);
    if (!value || *value < least || *value > most) refuse(fault);
    return *value;
}

std::string decoded(std::string_view text) {
    std::string plain;
    for (; !text.empty(); text.remove_prefix(1)) {
        if (text.front() != '%') {
            plain += text.front();
            continue;
        }
        const std::string_view digits = text.substr(1, 2);
        const auto value = whole_number<unsigned char>(digits, 16).value_or(0);
        if (digits.size() != 2 || value == 0) refuse("a % needs two hexadecimal digits, not 00");
        plain += static_cast<char>(value);
        text.remove_prefix(2);
    }
    return plain;
}

std::string encoded(std::string_view plain, std::string_view signs) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char c : plain) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_printable(c) && c != ' ' && c != '%' && signs.find(c) == std::string_view::npos)
            text += c;
        else
            text.append("%").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
    }
    return text;
}

const Scheme &scheme_of(std::string_view url) {
    for (const Scheme &scheme : schemes)
        if (url.starts_with(scheme.prefix)) return scheme;
    if (url.starts_with("rediss:")) refuse("there is no TLS here; docs/platform.md shows the road by a tunnel");
    refuse(
        "give mem:, mem:NAME, redis://HOST:PORT, redis+unix:///PATH, "
        "redis-sentinel://HOST:PORT,HOST:PORT,HOST:PORT/NAME "
        "or redis-sentinel+unix:///PATH,/PATH?name=NAME");
}

std::string from_environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

// A lone word may be meant for a password, and a user is shown.
Credentials take_credentials(std::string_view &authority) {
    Credentials given;
    const size_t at = authority.rfind('@');
    if (at != std::string_view::npos) {
        std::string_view both = authority.substr(0, at);
        authority.remove_prefix(at + 1);
        given.user = decoded(take_until(both, ":"));
        if (both.empty())
            refuse("before the @ stands USER:PASSWORD, :PASSWORD, or USER: with the password in TQ_STORE_PASSWORD");
        given.password = decoded(both.substr(1));
    }
    if (given.user.empty()) given.user = from_environment("TQ_STORE_USER");
    if (given.password.empty()) given.password = from_environment("TQ_STORE_PASSWORD");
    return given;
}

Address host_and_port(std::string_view text, int default_port) {
    Address server;
    const bool bracketed = text.starts_with('[');  // an IPv6 address
    if (bracketed) text.remove_prefix(1);
    server.host = take_until(text, bracketed ? "]" : ":");
    if (bracketed && text.empty()) refuse("the bracket is not closed");
    if (bracketed) text.remove_prefix(1);
    if (server.host.empty() || server.host.front() == '.') refuse("a host is missing");
    for (const char c : server.host) {
        const bool is_sign = bracketed && host_signs.find(c) != std::string_view::npos;
        if (letters.find(c) == std::string_view::npos && !is_sign) refuse("a host has a character that no host has");
    }
    server.port = default_port;
    if (text.empty()) return server;
    constexpr const char *wrong_port = "a port is no number from 1 to 65535";
    if (text.front() != ':') refuse(wrong_port);
    server.port = number(text.substr(1), 1, 65535, wrong_port);
    return server;
}

Address socket_at(std::string_view path) {
    if (path.size() < 2 || path.front() != '/')
        refuse("the path of a socket begins with a slash, the first one's with a third");
    // Credentials behind a slash too many would be shown with it.
    if (path.find('@') != std::string_view::npos) refuse("an @ in the path of a socket is %40");
    Address server;
    server.socket = decoded(path);
    if (server.socket.size() > longest_socket) refuse("the path of a socket is longer than 107 bytes");
    return server;
}

void take_options(RedisUrl &url, const Scheme &scheme, std::string_view options) {
    if (options.empty()) return;
    for (std::string_view value : parts_of(options.substr(1), "&")) {
        const std::string_view option = take_until(value, "=");
        if (!value.empty()) value.remove_prefix(1);
        const bool is_name = option == "name" && scheme.by_sockets && scheme.asks_sentinels;
        if (!is_name && option != "probe") refuse("the options are probe=MS and, with sentinels by socket, name=NAME");
        if (is_name) {
            url.master_name = value;
            continue;
        }
        url.probe = std::chrono::milliseconds(
            number(value, shortest_probe_ms, longest_probe_ms, "the probe time is no number from 100 to 600000"));
    }
}

std::string address_text(const Address &address, std::string_view signs) {
    const auto &[socket, host, port] = address;
    if (!socket.empty()) return encoded(socket, signs);
    const std::string bracketed = host.find(':') == std::string::npos ? host : "[" + host + "]";
    return bracketed + ":" + std::to_string(port);
}

std::string shown(const RedisUrl &url, const Scheme &scheme) {
    const std::string &user = url.credentials.user;
    std::string text(scheme.prefix);
    if (!user.empty()) text += encoded(user, ":@/?") + ":@";
    if (!scheme.asks_sentinels) return text + address_text(url.server, "?");
    for (size_t i = 0; i < url.sentinels.size(); ++i) text += (i ? "," : "") + address_text(url.sentinels[i], "?,");
    return text + (scheme.by_sockets ? "?name=" : "/") + url.master_name;
}

}  // namespace

std::string name_of(const Address &address) {
    return address.socket.empty() ? printable(address_text(address, "")) : printable(address.socket);
}

RedisUrl parse_redis_url(const std::string &url) {
    const Scheme &scheme = scheme_of(url);
    RedisUrl parsed;
    std::string_view rest = std::string_view(url).substr(scheme.prefix.size());
    std::string_view authority = take_until(rest, "/?");
    std::string_view path = take_until(rest, "?");
    parsed.credentials = take_credentials(authority);
    take_options(parsed, scheme, rest);
    if (scheme.by_sockets && !authority.empty()) refuse("the path of a socket begins with a third slash");

    const std::string_view servers = scheme.by_sockets ? path : authority;
    for (const std::string_view server : parts_of(servers, scheme.asks_sentinels ? "," : "")) {
        const int default_port = scheme.asks_sentinels ? sentinel_port : server_port;
        parsed.sentinels.push_back(scheme.by_sockets ? socket_at(server) : host_and_port(server, default_port));
    }
    if (!scheme.asks_sentinels) {
        std::swap(parsed.server, parsed.sentinels.front());
        parsed.sentinels.clear();
        if (!scheme.by_sockets && path.size() > 1) refuse("a server is named without a path: every database is in it");
    } else {
        if (!scheme.by_sockets && !path.empty()) parsed.master_name = path.substr(1);
        if (parsed.master_name.empty() || parsed.master_name.find_first_not_of(letters) != std::string::npos)
            refuse("the master's name is missing, or has other characters than letters, digits and .-_");
        parsed.sentinel_credentials = {from_environment("TQ_SENTINEL_USER"), from_environment("TQ_SENTINEL_PASSWORD")};
    }
    parsed.shown = shown(parsed, scheme);
    return parsed;
}

std::string url_without_secret(const std::string &url) {
    if (url.starts_with("mem:")) return url.find('@') == std::string::npos ? printable(url) : "mem:...";
    try {
        return parse_redis_url(url).shown;
    } catch (const std::invalid_argument &) {
    }
    const size_t end = url.find("://");
    const bool has_scheme = end != std::string::npos && url.find_first_not_of(std::string(letters) + '+') >= end;
    return has_scheme ? url.substr(0, end) + "://..." : "...";
}

}  // namespace tq
