#ifndef TQ_DM_CACHE_HPP
#define TQ_DM_CACHE_HPP

/*
 * The cache for clients in C++20: the functions of dm_cache.h and dm_cache_follow.h by the types of the objects instead of
 * row numbers and void pointers, with guards that unlock, free and unfollow. Templates only: the library does not need the
 * C++ run-time library, a client that uses this does as any program in C++.
 *
 *   const dm_cache::Lock lock;
 *   for (const PDev__CardInfo &card : dm_cache::objects<PDev__CardInfo>(lock)) ..
 *
 * Unless something says otherwise:
 *   - T is the message of a kind that has a row (dm_types.h); another does not compile;
 *   - what is handed out is borrowed: good until the lock is given back. copy() makes what must outlive it;
 *   - nothing allocates but copy() and follow(), nothing throws.
 */

#include "dm_cache.h"
#include "dm_cache_follow.h"
#include "dm_list.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <concepts>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace dm_cache {

/* The row that holds a kind; -1: none does. */
template <class T> inline constexpr int32_t row_of = -1;
template <> inline constexpr int32_t row_of<PDev__DpLibComplete> = DM_ROW_DP_LIB_COMPLETE;
template <> inline constexpr int32_t row_of<PDev__DpLibMyInfo> = DM_ROW_DP_LIB_MY_INFO;
template <> inline constexpr int32_t row_of<PDev__DeviceStaticInfo> = DM_ROW_DEVICE_STATIC_INFO;
template <> inline constexpr int32_t row_of<PDev__DmDeviceStattrT> = DM_ROW_DM_DEVICE_STATTR;
template <> inline constexpr int32_t row_of<PDev__DmPortAttrT> = DM_ROW_DM_PORT_ATTR;
template <> inline constexpr int32_t row_of<PDev__CardStaticInfo> = DM_ROW_CARD_STATIC_INFO;
template <> inline constexpr int32_t row_of<PDev__PortStatic> = DM_ROW_PORT_STATIC;
template <> inline constexpr int32_t row_of<PDev__UnitCportInfo> = DM_ROW_UNIT_CPORT_INFO;
template <> inline constexpr int32_t row_of<PDev__LportInfo> = DM_ROW_LPORT_INFO;
template <> inline constexpr int32_t row_of<PDev__LocalPortInfo> = DM_ROW_LOCAL_PORT_INFO;
template <> inline constexpr int32_t row_of<PDev__DmCardStattrT> = DM_ROW_DM_CARD_STATTR;
template <> inline constexpr int32_t row_of<PDev__DpLibLrole> = DM_ROW_DP_LIB_LROLE;
template <> inline constexpr int32_t row_of<PDev__DpLibMyChssInfo> = DM_ROW_DP_LIB_MY_CHSS_INFO;
template <> inline constexpr int32_t row_of<PDev__LocalCardInfo> = DM_ROW_LOCAL_CARD_INFO;
template <> inline constexpr int32_t row_of<PDev__DpLibGrole> = DM_ROW_DP_LIB_GROLE;
template <> inline constexpr int32_t row_of<PDev__DeviceInfo> = DM_ROW_DEVICE_INFO;
template <> inline constexpr int32_t row_of<PDev__CardInfo> = DM_ROW_CARD_INFO;
template <> inline constexpr int32_t row_of<PDev__DmChipStattrT> = DM_ROW_DM_CHIP_STATTR;
template <> inline constexpr int32_t row_of<PDev__VslPortInfo> = DM_ROW_VSL_PORT_INFO;
template <> inline constexpr int32_t row_of<PDev__VsdPort> = DM_ROW_VSD_PORT;
template <> inline constexpr int32_t row_of<PDev__VsdPortAttr> = DM_ROW_VSD_PORT_ATTR;
template <> inline constexpr int32_t row_of<PDev__VsdInfo> = DM_ROW_VSD_INFO;
template <> inline constexpr int32_t row_of<PDev__DeviceSyncInfo> = DM_ROW_DEVICE_SYNC_INFO;

/* The message of a kind that has a row. */
template <class T>
concept Kind = row_of<T>
!= -1;

/* The key message of a kind. Several kinds may have the same; a kind with one object has none. */
template <class T> using KeyOf = std::remove_pointer_t<decltype(T::index)>;
template <class T>
concept Keyed = Kind<T> && requires {
    typename KeyOf<T>;
};

/* Lock */

/* Holds the cache lock for its scope; nothing without dm_cache_multi_thread_init(). */
class [[nodiscard]] Lock {
public:
    Lock() noexcept { dm_cache_lock(); }
    ~Lock() { dm_cache_unlock(); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
};

/* Access. A lock that ends with the expression would leave what is handed out without one: it is refused. */

/* The cached object with this key, null when there is none. */
template <Keyed T> [[nodiscard]] const T *get(const Lock &, const KeyOf<T> &key) noexcept {
    const T *found = nullptr;
    dm_cache_get_obj(row_of<T>, &key, &found);
    return found;
}
template <Keyed T> const T *get(const Lock &&, const KeyOf<T> &key) = delete;

/* The same for a kind with one object. */
template <Kind T>
requires(!Keyed<T>) [[nodiscard]] const T *get(const Lock &) noexcept {
    const T *found = nullptr;
    dm_cache_get_obj(row_of<T>, nullptr, &found);
    return found;
}
template <Kind T>
requires(!Keyed<T>) const T *get(const Lock &&) = delete;

/* The objects of a kind in order of insertion: a forward range. The loop must not remove the object that it stands on. */
template <Kind T> class Objects {
public:
    class Iterator {
    public:
        using value_type = T;
        using difference_type = std::ptrdiff_t;

        Iterator() = default;
        explicit Iterator(const dm_list_head *link) noexcept : link_(link) {}
        const T &operator*() const noexcept {
            return *reinterpret_cast<const T *>(reinterpret_cast<const dm_cache_list_node *>(link_)->obj);
        }
        const T *operator->() const noexcept { return &**this; }
        Iterator &operator++() noexcept {
            link_ = link_->next;
            return *this;
        }
        Iterator operator++(int) noexcept { return Iterator(std::exchange(link_, link_->next)); }
        bool operator==(const Iterator &) const = default;

    private:
        const dm_list_head *link_ = nullptr;
    };

    /* Before dm_cache_init() a row has no list, and is empty. */
    Iterator begin() const noexcept { return Iterator(list_ ? list_->head.next : nullptr); }
    Iterator end() const noexcept { return Iterator(list_ ? &list_->head : nullptr); }
    std::size_t size() const noexcept { return list_ ? static_cast<std::size_t>(list_->count) : 0; }

private:
    const dm_cache_list *list_ = obj_sub_list[row_of<T>].obj_list;
};
template <Kind T> [[nodiscard]] Objects<T> objects(const Lock &) noexcept {
    return {};
}
template <Kind T> Objects<T> objects(const Lock &&) = delete;

/* Copies */

struct FreeMessage {
    template <class T> void operator()(T *message) const noexcept {
        protobuf_c_message_free_unpacked(&message->base, nullptr);
    }
};

/* A message of one's own, such as ndm_get_.. hands out. T is any message. */
template <class T> using Owned = std::unique_ptr<T, FreeMessage>;

/* A deep copy; null when there is no memory. T is any message. */
template <class T> [[nodiscard]] Owned<T> copy(const T &message) noexcept {
    T *made = nullptr;
    dm_cache_copy_obj(&message, message.base.descriptor, &made);
    return Owned<T>(made);
}

/* Followers */

/* What dm_cache_event tells; the messages are good during the call. */
template <Kind T> struct Event {
    int32_t what;    /* DM_CACHE_EVENT_.. */
    int32_t phase;   /* DM_CACHE_PHASE_.. */
    const T *before; /* null when added */
    const T *after;  /* null when deleted or swept */
};

namespace detail {

/* What a row tells. The row knows it by its address, so it stays where it is while its handle moves. */
struct Told {
    Told(int32_t from, dm_cache_follow_cb by) noexcept : row(from), callback(by) {}
    virtual ~Told() = default;
    Told(const Told &) = delete;
    Told &operator=(const Told &) = delete;

    int32_t row;
    dm_cache_follow_cb callback;
    bool running = false; /* after dm_cache_unfollow(): its callback does, on the thread that has called that */
    bool ended = false;   /* so the callback frees it */
};

template <Kind T, class Tell> struct Telling final : Told {
    explicit Telling(Tell &&given) : Told(row_of<T>, &call), tell(std::move(given)) {}

    static void call(const dm_cache_event *event, void *word) noexcept {
        auto *const self = static_cast<Telling *>(static_cast<Told *>(word));
        self->running = true;
        self->tell(Event<T>{event->what, event->phase, reinterpret_cast<const T *>(event->before),
                            reinterpret_cast<const T *>(event->after)});
        self->running = false;
        if (self->ended) delete self;
    }

    Tell tell;
};

}  // namespace detail

/*
 * Follows as long as it lives; empty when follow() had no memory. Its end, and what ends with it (stop(), an assignment), is
 * dm_cache_unfollow(): afterwards the callback does not run any more, so what it refers to may go. Hence never under a Lock,
 * nor while holding what the callback waits for. It may end within its own callback, whose captures then stay until that
 * returns. It is one thread's at a time.
 */
class [[nodiscard]] Follower {
public:
    Follower() = default;
    explicit Follower(std::unique_ptr<detail::Told> told) noexcept : told_(std::move(told)) {}
    Follower(Follower &&other) noexcept = default;
    Follower &operator=(Follower &&other) noexcept {
        Follower taken(std::move(other));
        std::swap(told_, taken.told_);
        return *this;
    }
    ~Follower() { stop(); }

    explicit operator bool() const noexcept { return told_ != nullptr; }

    void stop() noexcept {
        std::unique_ptr<detail::Told> told = std::move(told_);
        if (!told) return;
        dm_cache_unfollow(told->row, told->callback, told.get());
        if (told->running) told.release()->ended = true;
    }

private:
    std::unique_ptr<detail::Told> told_;
};

/*
 * Calls `tell` with each event of a kind, as dm_cache_follow() says: on which thread, from what on, with which `flags`. It may
 * be called before this returns. One allocation, which holds `tell`. Called from C, it must let no exception out: that ends
 * the program (std::terminate).
 */
template <Kind T, std::invocable<const Event<T> &> Tell> Follower follow(Tell tell, uint32_t flags = 0) {
    std::unique_ptr<detail::Told> told(new (std::nothrow) detail::Telling<T, Tell>(std::move(tell)));
    if (!told || dm_cache_follow(told->row, told->callback, told.get(), flags) != 0) return {};
    return Follower(std::move(told));
}

}  // namespace dm_cache

#endif
