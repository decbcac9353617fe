// Ports, cards, devices and slots by whatever a person calls them: as the tables of `show` print them, by their places and by the
// numbers inside. The cache is to be ready; it is locked meanwhile, unless the caller holds the lock.
#pragma once

#include "dmq/filter.h"

namespace dmq {

// A record of a table, and the object that it is about, borrowed under the lock.
struct Thing {
    std::vector<Json> record;
    const ProtobufCMessage *object;
};

// Those which fulfil the conditions and, unless the name is empty, are called so. Names that an operator uses go before numbers
// inside, and these before numbers that many have. The caller holds the cache lock.
std::vector<Thing> find_things(const View &view, const std::string &name, const std::vector<Condition> &conditions);

// " (did you mean 2/3/7?); show ports lists them": what is said when there is no such thing.
std::string what_is_near(const View &view, const std::string &name);

// What an operator calls them: each once, and without the word Slot.
std::vector<std::string> names_of_things(const View &view);
// The same for an argument of a query; none when it is no number of a thing.
std::vector<std::string> names_for(std::string_view argument);

// Is an argument of a query a number that belongs to a thing, so that the thing's name can stand for it?
bool is_number_of_thing(std::string_view argument);

// That number, as a text; empty when no thing, or more than one, is called so: then it says which there are.
struct NumberOfThing {
    std::string number, near;
};
NumberOfThing number_of_thing(std::string_view argument, const std::string &name);

}  // namespace dmq
