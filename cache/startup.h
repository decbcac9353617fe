// Start-up, as the rest of the cache sees it.
#pragma once

namespace dm {

// dm_cache_init has finished. Any thread.
bool started();

}  // namespace dm
