// The lines of earlier shells: a file of the user's alone, below XDG_STATE_HOME or ~/.local/state. Without it, nothing is
// remembered and nobody is told.
#pragma once

#include <string>
#include <vector>

namespace dmq {

// The latest of them, the oldest first.
std::vector<std::string> remembered_lines();
void remember_line(const std::string &line);

}  // namespace dmq
