// The embedded store: content of this process, shared by every client that gives the same name, kept as long as the
// process. It can be made to misbehave.
#pragma once

#include "platform/store.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

class MemStore;  // the content

// One client's connection. Its state is guarded by the content's lock.
class MemClient final : public Store {
public:
    MemClient(MemStore &store, Sink &sink);
    ~MemClient() override;
    MemClient(const MemClient &) = delete;
    MemClient &operator=(const MemClient &) = delete;

    void end() override {}
    bool up() const override;
    bool tells_at_once() const override { return true; }
    int32_t rescan_delay_ms() const override { return 10; }
    void follow(const Place &place, const std::string *key, const Ticket &ticket) override;
    void scan(const Place &place, const Ticket &ticket) override;
    int32_t read(const Place &place, const std::string &key, ObjectPtr &object) override;
    int32_t read_all(const Place &place, std::vector<ObjectPtr> &objects) override;
    int32_t write(const Place &place, Object object) override;
    int32_t write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused) override;
    int32_t erase(const Place &place, const std::string &key) override;
    int32_t replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) override;
    void set_name(std::string_view) override {}
    int32_t list_clients(std::string &) override { return TQ_MOM_E_ARGUMENT; }

    // Faults; each answers 0.
    int32_t disconnect();
    int32_t reconnect();
    int32_t restart(bool keep);
    int32_t lose_confirmations(int32_t n);

private:
    friend class MemStore;

    MemStore &store_;
    Sink &sink_;
    bool up_ = true;
    uint64_t instance_;  // of the store, as this client last saw it
    int32_t confirmations_to_lose_ = 0;
    std::vector<Ticket> owed_;  // confirmations, since the connection was lost or they were
};

// The store of that name; made when it is first asked for.
MemStore &mem_store(const std::string &name);

}  // namespace tq
