// Which dmq this is, and what it was built with. Nothing of the machine that built it, and not when: the same sources give
// the same bytes.
#include "dmq/command_line.h"
#include "dmq_commit.h"

namespace dmq {

std::string version() {
    const std::string commit = DMQ_COMMIT;
    return "dmq " DMQ_VERSION "\ninterface " DMQ_INTERFACE "\nbuild " DMQ_BUILD +
           (commit.empty() ? "" : ", commit " + commit) + "\n";
}

}  // namespace dmq
