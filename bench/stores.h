// The groups of benchmarks, and the stores that they share.
#pragma once

#include "bench/report.h"
#include "bench/unit.h"
#include "tests/platform/redis_server.h"

namespace bench {

RedisServer &server();    // holds the objects, in what it has saved too
std::string mem_store();  // the URL of an embedded store that holds them

// When the server first answers that it is there, asked every millisecond.
Clock::time_point first_answer();

void add_scans();
void add_pushes();
void add_restarts();
void add_caches();

}  // namespace bench
