// Start-up, as the rest of the cache sees it.
#pragma once

#include <cstdint>

namespace dm {

// dm_cache_init has finished. Any thread.
bool started();

// Enables a row that holds a kind, if nobody has. After the start it is subscribed at once. Any thread, not under the cache
// lock; takes it.
void enable_row(int32_t row);

}  // namespace dm
