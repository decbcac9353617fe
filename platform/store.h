// The seam between the client side and a store. A Store is one client's connection to a store; it knows places, keys
// and packed bytes, nothing of messages and callbacks. What it has to tell goes to a Sink, in the store's own order.
//
// A Store promises:
//   - follow, scan, and every change of a followed place take their turn in one order, and the sink hears in that order.
//     So a scanned object is never older than a change told before it;
//   - a scan ends with a Page that is the last one, unless the connection is lost first;
//   - a subscription or a scan that the store refuses holds up its own place only, and is OnHold until it is granted;
//   - what was followed survives a lost connection: it is followed again before connected() is told;
//   - read, read_all, write, erase and replace work on any thread, the loop's included, and wait for nothing that the loop does;
//   - the sink hears nothing after the Store's destructor has returned.
//
// The client calls follow() and up() with its own lock held: they must not wait for the loop.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/loop.h"

namespace tq {

// One object as a store holds it. Never changed once made: events and scans share it.
struct Object {
    std::string key;
    std::string bytes;
};
using ObjectPtr = std::shared_ptr<const Object>;

// The objects of one kind in one database.
struct Place {
    uint32_t db;
    std::string kind;
    auto operator<=>(const Place &) const = default;
};

// One of many objects to be written in order.
struct Write {
    Place place;
    Object object;
};

// What a client asked for. A store only hands it back with what it has to tell.
struct Request;
using Ticket = std::shared_ptr<Request>;

// From here on every change of the followed place is told.
struct Confirmed {
    Ticket ticket;
};

// What was asked for is refused for now: the store asks again by itself, and the answer comes when it is given.
struct OnHold {
    Ticket ticket;
    bool is_scan;
};

// Whoever follows a whole place may be told less of what was: no `before` of a set, only the key of a deleted object.
struct Changed {
    Ticket ticket;
    ObjectPtr before;  // null: the object is new
    ObjectPtr after;   // null: it was deleted
};

// Objects of a scan, none older than a change that was told before.
struct Page {
    Ticket ticket;
    std::vector<ObjectPtr> objects;
    bool last;
};

using Event = std::variant<Confirmed, OnHold, Changed, Page>;

// Hears from a store, on the store's threads: it must not call the store back, nor wait.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void post(Event event) = 0;
    // What the store told until then, by this clock, has been posted.
    virtual void heard_until(Clock::time_point when) = 0;
    virtual void lost() = 0;  // what was posted and is not delivered yet is lost too, but for confirmations
    // With the confirmations that could not be posted: all of these are in force now.
    virtual void connected(int32_t reason, std::vector<Ticket> owed) = 0;
};

// One client's connection; the promises are those above.
class Store {
public:
    virtual ~Store() = default;

    // Every call that waits fails, now and from here on. On any thread.
    virtual void end() = 0;

    virtual bool up() const = 0;
    // Whatever it tells is posted before the call that changes it returns; else heard_until() says how far it has come.
    virtual bool tells_at_once() const = 0;
    virtual int32_t rescan_delay_ms() const = 0;

    // Every change of a place; of one object only, when its key is given, though others may be told, too. Repeating it for
    // the same ticket only confirms again. While the connection is lost it is noted, and confirmed by connected().
    virtual void follow(const Place &place, const std::string *key, const Ticket &ticket) = 0;
    // A scan asked for while the connection is lost is lost.
    virtual void scan(const Place &place, const Ticket &ticket) = 0;

    // 0, TQ_MOM_E_UNREACHABLE, TQ_MOM_E_REFUSED, or, for one object, TQ_MOM_E_NOT_FOUND.
    virtual int32_t read(const Place &place, const std::string &key, ObjectPtr &object) = 0;
    virtual int32_t read_all(const Place &place, std::vector<ObjectPtr> &objects) = 0;
    virtual int32_t write(const Place &place, Object object) = 0;
    // Writes in order, as write() does. How many were taken, and the number of the first that was not, whose code is
    // answered; after that one a store may leave the rest out.
    virtual int32_t write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused) = 0;
    virtual int32_t erase(const Place &place, const std::string &key) = 0;
    // Writes, or erases when `after` is null, if what the store has is still `before`, null for nothing; else
    // TQ_MOM_E_CHANGED. At least one of them is an object, both have the same key.
    virtual int32_t replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) = 0;

    // What others see this client called, where a store has others; and who is connected, as the server lists it: TQ_MOM_E_ARGUMENT
    // when there is no server.
    virtual void set_name(std::string_view name) = 0;
    virtual int32_t list_clients(std::string &list) = 0;
};

// Opens the store that a URL names, for a client with that loop. Null, after one line on standard error: see `error`; the
// loop may have been stopped.
std::unique_ptr<Store> open_store(const std::string &url, Sink &sink, Loop &loop, int32_t &error);

}  // namespace tq
