// Identities of servers. No state, no lock.
#include "platform/redis_identity.h"

#include <algorithm>

#include "platform/redis_connection.h"
#include "platform/redis_wire.h"

namespace tq {

bool parse_identity(std::string_view text, Identity &identity) {
    std::string *const words[] = {&identity.role,
                                  &identity.mode,
                                  &identity.run_id,
                                  &identity.replication_id,
                                  &identity.former_replication_id,
                                  &identity.content_id};
    for (std::string *word : words) {
        const size_t end = word == words[5] ? text.size() : text.find(' ');
        if (end == std::string_view::npos) return false;
        *word = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return !identity.role.empty() && !identity.run_id.empty();
}

bool same_content(const Identity &before, const Identity &now) {
    const bool was_replica = now.former_replication_id.find_first_not_of('0') != std::string::npos;
    return before.run_id == now.run_id && (before.replication_id == now.replication_id || !was_replica) &&
           (before.content_id == now.content_id || before.content_id.empty());
}

std::string unfit(const Identity &identity) {
    return identity.mode == "cluster" ? "the server is part of a cluster: a store needs a server of its own" : "";
}

std::string identity_question() {
    return formatted({"EVAL", identity_script, "0", random_id(), ""});
}

}  // namespace tq
