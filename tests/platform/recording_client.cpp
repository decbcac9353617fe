// A client that writes down what it is told. mutex_ guards the lines and the words.
#include "tests/platform/recording_client.h"

#include <regex>

#include "tests/platform/redis_server.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace {

constexpr std::chrono::seconds limit(20);

thread_local RecordingClient *of_this_loop = nullptr;  // a reconnect callback has no word of its own

void on_connection(tq_mom_handle *, int32_t connected, int32_t reason, void *self) {
    of_this_loop = static_cast<RecordingClient *>(self);
    of_this_loop->note(connected ? "connected " + std::to_string(reason) : "lost");
}

int32_t on_reconnect(void *, uint32_t db, int32_t reason, void *) {
    of_this_loop->note("reconnect " + std::to_string(db) + " " + std::to_string(reason));
    return -1;  // ignored
}

std::string describe(const ProtobufCMessage *message, int32_t error) {
    std::string text = "nothing";
    if (message && message->descriptor == &p_dev__card_info__descriptor) {
        const auto *card = reinterpret_cast<const PDev__CardInfo *>(message);
        text = std::to_string(card->index->slotid) + ":" + std::to_string(card->config_dev_type);
    } else if (message) {
        text = message->descriptor->short_name;
    }
    return error ? text + " error " + std::to_string(error) : text;
}

std::string describe(const store_msg &msg) {
    const auto *object = static_cast<const ProtobufCMessage *>(msg.value);
    if (msg.cmd == TQ_MOM_CMD_SUBSCRIBED) return msg.result ? "refused " + std::to_string(msg.result) : "confirmed";
    if (msg.cmd == TQ_MOM_CMD_SET) return "set " + describe(object, msg.result);
    if (msg.cmd == TQ_MOM_CMD_DELETE) return "deleted " + describe(object, msg.result);
    if (msg.flag == 1) return msg.value ? "end with a value" : "end";
    const auto *record = static_cast<const result_rec *>(msg.value);
    return "has " + describe(record->obj, record->error);
}

}  // namespace

std::string join(const Lines &lines) {
    std::string text;
    for (const std::string &line : lines) text += (text.empty() ? "" : ", ") + line;
    return text;
}

std::map<int, int> picture(const std::string &scanned) {
    static const std::regex object("has ([0-9]+):([0-9]+)");
    std::map<int, int> types;
    for (std::sregex_iterator at(scanned.begin(), scanned.end(), object), end; at != end; ++at)
        types[std::stoi(at->str(1))] = std::stoi(at->str(2));
    return types;
}

testing::AssertionResult has(const std::string &text, const std::string &words) {
    if (text.find(words) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << words << "\" in: " << text;
}

testing::AssertionResult has_lines(const std::string &text, long count) {
    if (std::count(text.begin(), text.end(), '\n') == count) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "not " << count << " lines: " << text;
}

Message card_of_type(int32_t slot, int32_t type) {
    return card(1, slot, 0).set("config_dev_type", type);
}

bool StandardError::wait(const std::string &words) const {
    return wait_until([&] { return peek().find(words) != std::string::npos; });
}

RecordingClient::RecordingClient(const std::string &url) {
    if (open_client(url, &handle_) != 0) throw std::runtime_error(url);
}

void RecordingClient::close() {
    if (handle_) close_client(std::exchange(handle_, nullptr));
}

RecordingClient::Word *RecordingClient::word(const std::string &name) {
    const std::lock_guard lock(mutex_);
    return &words_.try_emplace(name, Word{this, name, {}}).first->second;
}

std::function<void()> RecordingClient::hold(const std::string &name) {
    const auto gate = std::make_shared<std::promise<void>>();
    word(name)->then = [gate, held = false](const store_msg &) mutable {
        if (!std::exchange(held, true)) gate->get_future().wait();
    };
    return [gate] { gate->set_value(); };
}

void RecordingClient::subscribe(const std::string &name) {
    EXPECT_EQ(tq_mom_subscribe(handle_, 1, card(1, 0, 0).get(), 0, on_message, word(name)), 0);
}

bool RecordingClient::follow(const std::string &name) {
    subscribe(name);
    return wait(name + ": confirmed");
}

void RecordingClient::scan(const std::string &name) {
    EXPECT_EQ(tq_mom_scan(handle_, 1, card(1, 0, 0).get(), 0, on_message, word(name)), 0);
}

void RecordingClient::follow_connection() {
    EXPECT_EQ(tq_mom_client_set_connection_cb(handle_, on_connection, this), 0);
    for (const uint32_t db : {1u, 3u}) EXPECT_EQ(tq_mom_client_set_reconnect_cb(handle_, db, on_reconnect, 0), 0);
}

void RecordingClient::follow_all() {
    follow_connection();
    EXPECT_TRUE(follow("sub"));
    EXPECT_EQ(told(), "connected 0, sub: confirmed");
}

std::string RecordingClient::get(int32_t slot) {
    const Message key = card(1, slot, 0);
    int32_t error = 0;
    ProtobufCMessage *object = tq_mom_get_sync(handle_, 1, key.get(), &error);
    result_rec *record = tq_mom_hgetall_sync(handle_, 1, key.get());
    const std::string text = describe(object, error);
    EXPECT_EQ(record ? describe(record->obj, record->error) : "no record", text);
    EXPECT_EQ(tq_mom_tq_obj_free(object), 0);
    EXPECT_EQ(tq_mom_hash_res_free(record), 0);
    return text;
}

std::string RecordingClient::scanned() {
    told();
    scan("s");
    EXPECT_TRUE(wait("s: end"));
    Lines found = lines();
    EXPECT_EQ(found.back(), "s: end");
    std::sort(found.begin(), found.end());
    return join(found);
}

Lines RecordingClient::scan_sync() {
    Lines found;
    const auto add = [](tq_mom_handle *, store_msg *msg, void *lines) {
        static_cast<Lines *>(lines)->push_back(describe(*msg));
        return -1;  // ignored
    };
    EXPECT_EQ(tq_mom_scan_sync(handle_, 1, card(1, 0, 0).get(), 0, add, &found), 0);
    return found;
}

int32_t RecordingClient::on_message(tq_mom_handle *, store_msg *msg, void *word) {
    const auto &w = *static_cast<Word *>(word);
    w.client->note(w.name + ": " + describe(*msg));
    if (w.then) w.then(*msg);
    return -1;  // ignored
}

int32_t RecordingClient::on_ready(void *, uintptr_t word) {
    const auto &w = *reinterpret_cast<Word *>(word);
    w.client->note(w.name + ": ready");
    return -1;  // ignored
}

void RecordingClient::note(const std::string &line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
    more_.notify_all();
}

bool RecordingClient::wait(const std::string &line) {
    std::unique_lock lock(mutex_);
    return more_.wait_for(lock, limit, [&] { return std::find(lines_.begin(), lines_.end(), line) != lines_.end(); });
}

testing::AssertionResult RecordingClient::tells(const std::string &expected) {
    const size_t last = expected.rfind(", ");
    wait(last == std::string::npos ? expected : expected.substr(last + 2));
    const std::string all = told();
    if (all == expected) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "told: " << all << "\nexpected: " << expected;
}

Lines RecordingClient::lines() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}
