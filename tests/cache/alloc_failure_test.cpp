// Memory runs out. Each allocation of each operation fails in turn: the answer is one that the header names, nothing is
// lost or leaked, and the same call succeeds as soon as there is memory again. The program's own malloc counts and fails;
// C++'s new stays apart, so that only the library and protobuf-c are counted. Plain builds only; one thread.
#include "tests/support/live_cache.h"

#include <cerrno>
#include <set>

static int64_t live = 0;     // blocks that are out
static int64_t asked = 0;    // requests since fail_at()
static int64_t failing = 0;  // the number of the one that fails; 0: none

static void fail_at(int64_t n) {
    asked = 0;
    failing = n;
}

static bool refused() {
    if (++asked != failing) return false;
    errno = ENOMEM;
    return true;
}

static void *counted(void *block) {
    live += block ? 1 : 0;
    return block;
}

#define PUBLIC __attribute__((visibility("default")))
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
PUBLIC void *malloc(size_t size) {
    return refused() ? nullptr : counted(__libc_malloc(size));
}
PUBLIC void *calloc(size_t count, size_t size) {
    return refused() ? nullptr : counted(__libc_calloc(count, size));
}
PUBLIC void *realloc(void *block, size_t size) {
    if (refused()) return nullptr;
    live -= block ? 1 : 0;
    return counted(__libc_realloc(block, size));
}
PUBLIC void free(void *block) {
    live -= block ? 1 : 0;
    __libc_free(block);
}
}
PUBLIC void *operator new(size_t size) {
    return __libc_malloc(size);
}
PUBLIC void operator delete(void *block) noexcept {
    __libc_free(block);
}
PUBLIC void operator delete(void *block, size_t) noexcept {
    __libc_free(block);
}

namespace {

using Call = std::function<int32_t()>;
using Undo = std::function<void()>;  // takes back what a success did, or half of one
using Holds = std::function<bool()>;

// Whole: all of it is there. Intact: after a failure, what was there before still is.
void each_allocation_fails(
    const char *name, const std::set<int32_t> &failures, const Call &call, const Undo &undo, const Holds &whole,
    const Holds &intact = [] { return true; }, int32_t success = 0) {
    SCOPED_TRACE(name);
    call();  // what the C library allocates once
    undo();
    fail_at(0);
    call();
    const int64_t count = asked;
    undo();
    ASSERT_GT(count, 0);
    for (int64_t n = 1; n <= count; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        const int64_t before = live;
        fail_at(n);
        const int32_t code = call();
        EXPECT_GE(asked, n);
        fail_at(0);
        EXPECT_TRUE(failures.contains(code)) << code;
        EXPECT_TRUE(code >= 0 || code == success || (!whole() && live == before));
        EXPECT_TRUE(intact());
        EXPECT_EQ(call(), success);
        EXPECT_TRUE(whole());
        undo();
        EXPECT_EQ(live, before);
    }
}

void remove(int32_t row, const Message &object) {
    ndm_cache_tree_del_node(&obj_sub_list[row], object.get());
    dm_cache_list_free(dm_cache_list_del(obj_sub_list[row].obj_list, obj_sub_list[row].cmp_func, object.get()));
}

bool in_trees(int32_t row, const Message &object) {
    const dm_cache_list_node *node = element(row, object);
    if (!node || !node->key) return false;
    ndm_cache_tree *const trees = obj_sub_list[row].port_tree;
    for (int i = 0; i < trees->tree_num; ++i)
        if (dm_rbtree_find_node(&trees->root[i], node->key->key[i]) != node) return false;
    return true;
}

class OutOfMemory : public testing::Test {
protected:
    OutOfMemory() {
        platform.answers.clear();
        start({1, 7, 17, 30});
        platform.synchronise();
    }
    ~OutOfMemory() override { dm_cache_stop(); }

    const Message one = card(1, 3, 0).set("name", "M8600").set("serial", "1234");
    const Message base = static_port(1, 2, 3, 7), port = global_port(1, 1, 2, 3, 7, 5);
};

}  // namespace

TEST_F(OutOfMemory, StoringAndCopying) {
    const Message before = card(1, 4, 0).set("port_num", 5), changed = card(1, 4, 0).set("port_num", 9);
    const auto now = [&](const Message &object) { return equal(element(17, object)->obj, object.get()); };
    const auto cmp = obj_sub_list[17].cmp_func;
    dm_cache_list list{{&list.head, &list.head}, 0};
    ProtobufCMessage *copy = nullptr;
    const auto free_copy = [&] { protobuf_c_message_free_unpacked(std::exchange(copy, nullptr), nullptr); };
    dm_cache_set_obj(17, before.get());

    each_allocation_fails(
        "copy", {-3, -5}, [&] { return dm_cache_copy_obj(one.get(), one.get()->descriptor, &copy); }, free_copy,
        [&] { return copy && equal(copy, one.get()); });
    each_allocation_fails(
        "set a new one", {-3, -5, -1}, [&] { return dm_cache_set_obj(17, one.get()); }, [&] { remove(17, one); },
        [&] { return cached(17) == 2; });
    const Message unknown = Message::unpack(one.get()->descriptor, packed(one.get()) + "\xC0\x3E\x05");
    each_allocation_fails(
        "set one that no plan covers", {-3, -5, -1}, [&] { return dm_cache_set_obj(17, unknown.get()); },
        [&] { remove(17, one); }, [&] { return cached(17) == 2; });
    each_allocation_fails(
        "replace", {-3, -5}, [&] { return dm_cache_set_obj(17, changed.get()); },
        [&] { dm_cache_set_obj(17, before.get()); }, [&] { return now(changed); }, [&] { return now(before); });
    each_allocation_fails(
        "list", {-3, -5, -1}, [&] { return dm_cache_list_add(&list, one.get(), one.get()->descriptor, cmp); },
        [&] { dm_cache_list_free(dm_cache_list_del(&list, cmp, one.get())); }, [&] { return list.count == 1; });
    void *out = nullptr;
    fail_at(1);
    EXPECT_EQ(dm_cache_get_obj(17, key_message(before.get()), &out), 0);
    EXPECT_EQ(asked, 0);
    fail_at(0);
}

TEST_F(OutOfMemory, Trees) {
    rbtree_root *root = create_rbtree(), *made = nullptr;
    const auto filled = [&] { return root->node != nullptr; };
    each_allocation_fails(
        "map", {-1}, [&] { return dm_rbtree_insert_node(&root, 5, &root); }, [&] { dm_rbtree_delete_node(&root, 5); },
        filled);
    each_allocation_fails(
        "keys", {-1}, [&] { return insert_rbtree(root, 5); }, [&] { delete_rbtree(root, 5); }, filled);
    each_allocation_fails(
        "root", {-1}, [&] { return dm_rbtree_init_root(&made); }, [&] { destroy_rbtree(std::exchange(made, nullptr)); },
        [&] { return made; });
    destroy_rbtree(root);
}

// A port that could not be indexed stays cached; no tree may hold on to an element without a key record.
TEST_F(OutOfMemory, IndexedPorts) {
    const Message moved = global_port(1, 1, 2, 3, 7, 6), other = static_port(1, 2, 3, 7).set("static_info.lport", 9);
    obj_sub_entry *const row = &obj_sub_list[30];
    const auto key = [&](int tree) { return element(30, port)->key->key[tree]; };
    const auto consistent = [&] {
        const bool empty = !row->port_tree->root[0]->node && !row->port_tree->root[2]->node;
        return cached(30) == 1 && (element(30, port)->key || empty);
    };
    dm_cache_set_obj(7, base.get());
    each_allocation_fails(
        "set a port", {-3, -5, -1, 0}, [&] { return dm_cache_set_obj(30, port.get()); }, [&] { remove(30, port); },
        [&] { return in_trees(30, port); });
    dm_cache_set_obj(30, port.get());
    each_allocation_fails(
        "move it", {-3, -5, 0}, [&] { return dm_cache_set_obj(30, moved.get()); },
        [&] { dm_cache_set_obj(30, port.get()); }, [&] { return in_trees(30, port) && key(0) == 0x01000006; },
        consistent);
    int32_t answer = 0;
    each_allocation_fails(
        "change its static port", {-3, -5, 0}, [&] { return answer = dm_cache_set_obj(7, other.get()); },
        [&] { dm_cache_set_obj(7, base.get()); },
        [&] {  // a port that lost its place in the trees finds it when it comes again
            dm_cache_set_obj(30, port.get());
            return in_trees(30, port) && key(2) == 0x06010209;
        },
        [&] {  // a 0 is kept
            const Message &now = answer == 0 ? other : base;
            return consistent() && equal(element(7, base)->obj, now.get());
        });
    each_allocation_fails(
        "index", {-1, 0}, [&] { return ndm_cache_tree_add_node(row, port.get()); },
        [&] { ndm_cache_tree_del_node(row, port.get()); }, [&] { return in_trees(30, port); }, consistent);
    each_allocation_fails(
        "index again", {-1, 0},
        [&] {
            const int64_t n = failing;
            fail_at(0);
            ndm_cache_tree_add_node(row, port.get());
            fail_at(n);
            return ndm_cache_tree_add_node(row, port.get());
        },
        [&] { ndm_cache_tree_del_node(row, port.get()); }, [&] { return in_trees(30, port); }, consistent);
}

// A lost push or reply is one object out of date, never a crash, a leak, or a machine that stands still.
TEST_F(OutOfMemory, MessagesOfTheStore) {
    static int32_t heard = 0;
    const auto hear = [](const dm_cache_event *event, void *) { heard += event->after ? !event->before : -1; };
    const auto follow = [&] {
        const int32_t code = dm_cache_follow(17, hear, nullptr, 0);
        platform.fire_timers();
        return code;
    };
    receive(17, SET, one);
    each_allocation_fails(
        "follow", {-2}, follow, [&] { heard += dm_cache_unfollow(17, hear, nullptr) - 1; }, [&] { return heard == 1; });
    follow();
    receive(17, DELETE, one);
    const Message completion = complete();
    const auto in_cache_or_refused = [&] {
        int32_t all = 0;
        for (const int32_t row : {7, 17, 30}) {
            const int32_t found = row == 30 && cached(7) ? in_trees(30, port) : cached(row);
            all += found + static_cast<int32_t>(counters(row).refused);
        }
        return all;
    };
    int32_t before = 0;
    each_allocation_fails(
        "set", {0},
        [&] {
            before = in_cache_or_refused();
            return receive(17, SET, one);
        },
        [&] { receive(17, DELETE, one); }, [&] { return cached(17) == 1; },
        [&] { return in_cache_or_refused() == before + 1 && heard == cached(17); });
    const auto resynchronise = [&] {
        before = in_cache_or_refused();
        receive(1, SET, completion);
        receive(7, REPLY, base);
        receive(17, REPLY, one);
        receive(30, REPLY, port);
        for (const int32_t row : {1, 7, 17, 30}) receive_end(row);
        return g_cache_proc_done - 1;
    };
    each_allocation_fails(
        "resynchronise", {0}, resynchronise, [&] { remove(7, base), receive(17, DELETE, one), remove(30, port); },
        [&] { return cached(7) == 1 && cached(17) == 1 && in_trees(30, port); },
        [&] { return in_cache_or_refused() == before + 3 && heard == cached(17); });
    resynchronise();
    fail_at(1);
    receive(30, DELETE, port);
    receive(17, DELETE, one);
    receive(7, DELETE, base);
    EXPECT_EQ(asked, 0);
    fail_at(0);
    EXPECT_EQ(cached(7) + cached(17) + cached(30), 0);
    dm_cache_unfollow(17, hear, nullptr);
}

// A process that starts while memory is short must run with what it got, and lose none of it when it starts again.
TEST(OutOfMemoryAtStart, LeavesRowsThatCanBeUsed) {
    const Message base = static_port(1, 2, 3, 7), port = global_port(1, 1, 2, 3, 7, 5);
    platform.answers = {{"connect_sync", -9}};
    const auto store = [&] {  // a tree that is not there must not be a trap
        dm_cache_set_obj(7, base.get());
        dm_cache_set_obj(30, port.get());
        return cached(30) == 1;
    };
    each_allocation_fails(
        "start", {-9}, [] { return dm_cache_init(&platform.handle, "x"); }, store,
        [&] { return store() && in_trees(30, port); }, store, -9);
}
