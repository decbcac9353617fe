#ifndef TQ_DM_SIMULATION_CHECK_H
#define TQ_DM_SIMULATION_CHECK_H

// What must hold. Each check ends the run as failed when it does not.

#include "tests/simulation/world.h"

// Once a full application was done on a connection: what the store has held unchanged since the connection was made is
// cached, at any time.
void check_complete(const World &world);

// At rest: the machine is live, cache and store are equal, lists and indexes are sound, nothing is left over.
void check_equal(World &world);

#endif
