// The stores that the contract tests run over, and a client that writes down all it is told, one short line each. Objects
// are cards of device 1: a line shows one as slot:type, and an error behind it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>

#include "tests/support/capture.h"
#include "tests/support/messages.h"
#include "tq_dm_cache/tq_platform_bundled.h"

struct StoreUnderTest {
    const char *name;
    std::string (*new_store)();  // the URL of an empty store
    int32_t (*disconnect)(tq_mom_handle *);
    int32_t (*reconnect)(tq_mom_handle *);
    int32_t (*restart)(tq_mom_handle *, int32_t keep);
    int32_t (*lose_confirmations)(tq_mom_handle *, int32_t n);
    int32_t (*put_bytes)(tq_mom_handle *, uint32_t db, const ProtobufCMessage *, const uint8_t *, uint32_t length);
};
inline void PrintTo(const StoreUnderTest &store, std::ostream *out) {
    *out << store.name;
}

std::vector<StoreUnderTest> stores_under_test();
int32_t open_client(const std::string &url, tq_mom_handle **handle);  // with what its faults need
void close_client(tq_mom_handle *handle);

using Lines = std::vector<std::string>;
std::string join(const Lines &lines);
std::map<int, int> picture(const std::string &scanned);  // type by slot
testing::AssertionResult has(const std::string &text, const std::string &words);
testing::AssertionResult has_lines(const std::string &text, long count);
Message card_of_type(int32_t slot, int32_t type);

class RecordingClient {
public:
    // What a callback is given: its lines begin with the name, then `then` runs.
    struct Word {
        RecordingClient *client;
        std::string name;
        std::function<void(const store_msg &)> then;
    };

    explicit RecordingClient(const std::string &url);
    ~RecordingClient() { close(); }
    void close();

    tq_mom_handle *handle() const { return handle_; }
    Word *word(const std::string &name);
    // Its callback waits at its first line from now on, until what is answered is called.
    std::function<void()> hold(const std::string &name);

    // They take the store's answer for granted; what it has to tell comes as lines.
    void subscribe(const std::string &name);
    bool follow(const std::string &name);  // and it is confirmed
    void scan(const std::string &name);
    void follow_connection();  // and the reconnects of databases 1 and 3
    void follow_all();         // both, and what they tell first is dropped
    int32_t write(const Message &object, uint32_t db = 1) { return tq_mom_set(handle_, db, object.get(), 0, 0); }
    void set(int32_t slot, int32_t type, uint32_t db = 1) { EXPECT_EQ(write(card_of_type(slot, type), db), 0); }
    void del(int32_t slot) { EXPECT_EQ(tq_mom_del(handle_, 1, card(1, slot, 0).get()), 0); }

    std::string get(int32_t slot);  // by both ways of reading
    std::string scanned();          // one scan's lines, sorted: one end mark, which came last, then objects
    Lines scan_sync();

    void note(const std::string &line);
    bool wait(const std::string &line);                           // for one that is not told yet
    testing::AssertionResult tells(const std::string &expected);  // waits for the last line of these: all that was told
    Lines lines();                                                // what was written down since the last time
    std::string told() { return join(lines()); }

    static int32_t on_message(tq_mom_handle *handle, store_msg *msg, void *word);
    static int32_t on_ready(void *reserved, uintptr_t word);

private:
    tq_mom_handle *handle_ = nullptr;
    std::mutex mutex_;
    std::condition_variable more_;
    std::map<std::string, Word> words_;
    Lines lines_;
};

struct StandardError : Capture {
    StandardError() : Capture(STDERR_FILENO) {}
    bool wait(const std::string &words) const;
};
