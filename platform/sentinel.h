// Which server is the master just now, by those who watch the servers of a chassis and choose. No state, no lock.
#pragma once

#include <cstddef>
#include <string>

#include "platform/redis_url.h"

namespace tq {

// Asks the URL's sentinels in turn, and waits for the probe time at most, whatever they do. One that is silent holds the
// next one up for a moment only. `found` is where the last attempt went, if there was one: for seconds after a change
// some sentinels name the former master, which may answer again and take writes that will be gone, so it is the answer only
// when none names another. Each attempt has another number and begins with another sentinel, so that one that is behind the
// times is not believed for ever. False: none has an address, and the fault is what each has said. A URL without sentinels
// names its server.
bool find_master(const RedisUrl &url, size_t attempt, Address &found, std::string &fault);

}  // namespace tq
