// How old is the cache's picture of the store? Any thread. Takes no lock.
#pragma once

#include <cstdint>

namespace dm {

// The callback thread: the cache is no longer live, and is as old as it is now until it is live again.
void age_grows_from_now();

}  // namespace dm
