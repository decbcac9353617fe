// Which URL opens which store.
#include "platform/store.h"

#include <cstdio>
#include <stdexcept>

#include "platform/mem_store.h"
#include "platform/redis_store.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

std::unique_ptr<Store> refuse(const std::string &url, const char *why, int32_t &error) {
    error = TQ_MOM_E_URL;
    std::fprintf(stderr, "tq_platform: \"%s\" names no store: %s\n", url_without_secret(url).c_str(), why);
    return nullptr;
}

}  // namespace

std::unique_ptr<Store> open_store(const std::string &url, Sink &sink, Loop &loop, int32_t &error) {
    const std::string mem = "mem:";
    if (url.starts_with(mem)) return std::make_unique<MemClient>(mem_store(url.substr(mem.size())), sink);
    try {
        return RedisStore::open(parse_redis_url(url), sink, loop, error);
    } catch (const std::invalid_argument &fault) {
        return refuse(url, fault.what(), error);
    }
}

}  // namespace tq
