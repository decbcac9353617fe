// What start-up reads from files: the number of chassis and this process's log threshold. On the starting thread. Takes no lock.
#pragma once

#include <cstdint>

namespace dm {

// Takes the number of chassis from the capability file; -1 when the file is missing or unreadable.
int32_t dm_get_cap_value();

// Takes the log threshold of dm_cache_my_name from the configuration file, if there is one.
void dm_cache_read_cfg();

}  // namespace dm
