// Which URL opens which store.
#include "platform/store.h"

#include <cstdio>

#include "platform/mem_store.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

std::unique_ptr<Store> open_store(const std::string &url, Sink &sink, Loop &, int32_t &error) {
    const std::string mem = "mem:";
    if (url.starts_with(mem)) return std::make_unique<MemClient>(mem_store(url.substr(mem.size())), sink);

    error = TQ_MOM_E_URL;
    std::fprintf(stderr, "tq_platform: \"%s\" names no store: give mem: or mem:NAME\n", url.c_str());
    return nullptr;
}

}  // namespace tq
