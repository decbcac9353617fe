// What may come next on a command line: bash and zsh ask it by `dmq complete WORD..`, where the last word is the one under
// the cursor. Nothing is known here that is not asked of the commands, the library or the store.
#pragma once

#include "dmq/command.h"

namespace dmq {

struct Asked {
    Context &context;
    const Settings &settings;
    std::vector<std::string> words;  // behind the command's name, in front of the word that is asked for
    std::string begun = {};          // what that word has already
};

struct Candidate {
    std::string word;
    std::string what;
};
using Candidates = std::vector<Candidate>;

// A value is offered when no shell takes it apart and no terminal obeys it.
bool is_plain(std::string_view text);

// What each command takes next.
Candidates next_command(const Asked &asked);
Candidates next_kind(const Asked &asked);
Candidates next_key(const Asked &asked);         // a kind, then field=value of the keys that its objects have
Candidates next_assignment(const Asked &asked);  // the same, and its other fields
Candidates next_field(const Asked &asked);       // of the kind, those alone
Candidates next_table(const Asked &asked);
Candidates next_query(const Asked &asked);
Candidates next_action(const Asked &asked);

// What options take.
Candidates next_store(const Asked &asked);
Candidates next_process(const Asked &asked);
Candidates next_level(const Asked &asked);
Candidates next_column(const Asked &asked);
Candidates next_format(const Asked &asked);

// For the last of the words on a line of a shell, within its session and within a second; files, when nothing else is known.
// Empty: none, for whatever reason; nothing is told.
Candidates complete_in_shell(const std::vector<std::string> &words, Context &context, Settings settings);

// Prints the candidates, one a line, what they are behind a tab. 1: there are none, for whatever reason; nothing is told.
Exit complete(const std::vector<std::string> &words);

}  // namespace dmq
