// A query with its arguments, ready to be asked. What an argument is for follows from its type and its name by one table. Each
// query takes the cache lock as its header says.
#pragma once

#include <cstring>
#include <functional>
#include <vector>

#include "dmq/call.h"
#include "dmq/json.h"

namespace dmq {

struct Use;  // what dmq does with an argument

struct Argument {
    Argument() = default;
    Argument(const Argument &) = delete;
    ~Argument();

    std::string_view name;
    const Use *use = nullptr;
    std::string memory;  // what its word points to
    std::string before;
    uintptr_t word = 0;

    bool written() const { return memory != before; }
    bool counts() const;

    template <class T> T at(size_t i) const {
        T value;
        std::memcpy(&value, memory.data() + i * sizeof value, sizeof value);
        return value;
    }
};

class Question {
public:
    // The words are the query and its arguments, behind a command. Throws a Failure for words that are none of its arguments.
    Question(const Query &query, const std::vector<std::string> &words, const std::string &command);
    Question(const Question &) = delete;

    const Query &query() const { return query_; }
    const Json &asked() const { return asked_; }  // the arguments by name, as the query gets them

    struct Answer {
        int64_t result;
        bool lacked_memory;
    };
    Answer ask();  // once

    // Every out-value by name, null for one that was left alone. A list is counted by the argument behind it, else by the
    // result.
    Json values(int64_t result) const;

private:
    const Query &query_;
    std::vector<Argument> arguments_;
    Json asked_ = Json::object();
};

// The names of the arguments that a person gives, in their order.
std::vector<std::string_view> asked_arguments(const Query &query);

// The words with the names of things as the numbers that they stand for: "Slot 1/M1" where a node is wanted. `prepare` makes the
// cache ready, once and only when there is such a name. Throws a Failure for a name that is none, and lists those that are.
std::vector<std::string> with_numbers(const Query &query, std::vector<std::string> words,
                                      const std::function<void()> &prepare);

// Throws a Failure when there is no such query, or it is not one for a command line.
const Query &find_query(const std::string &name, const std::string &command);

// Throws a Failure when the query writes the store while another process's cache is shown.
void refuse_write(const Query &query, bool attached, const std::string &command);

bool failed(int64_t result);

// Is that an answer, and no no? Beside out-values the result says only whether they are one.
bool answers(const Query &query, int64_t result, const Json &values);

bool is_node(std::string_view name);
bool is_port(std::string_view name);

// What a number means, when it says more than itself. `has_outs`: the query writes values beside its result.
std::string meaning_of(const Query &query, std::string_view name, bool has_outs, const Json &value);

// The enumeration whose values an argument takes or a query writes there, or null.
const ProtobufCEnumDescriptor *enumeration_of(const Query &query, std::string_view name);

}  // namespace dmq
