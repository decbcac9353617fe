// The links and lists from the inside: what the exported list operations share with the cache's row changes and with the
// pending queue. The caller holds the cache lock, or owns the list.
#pragma once

#include "base/message.h"

namespace dm {

// An empty head, or a link in no list: it points to itself.
void list_init(dm_list_head *link);
inline bool list_empty(const dm_list_head *head) {
    return head->next == head;
}

// Appends and counts, without a limit.
void dm_list_add_tail_no_limit(dm_list_head *link, dm_list_head *head, uint32_t *count);
void list_unlink(dm_list_head *link);

// With its message and key record. The element is in no list.
struct FreeNode {
    void operator()(dm_cache_list_node *node) const { dm_cache_list_free(node); }
};

// An element in no list.
using OwnedNode = std::unique_ptr<dm_cache_list_node, FreeNode>;

// Whose message an element holds: the client's own, or a stored one, of the store, of dm_cache_set_obj(), or of dm_cache_list_add().
enum : uint8_t { unstored, of_store, of_client, of_list };

// Puts a message into an element in place of its old one, which is let go. Both have the same key.
void list_replace(dm_cache_list_node *node, StoredMessage message);

// A new element at the tail; null without memory or when the list is full, the message is then let go.
dm_cache_list_node *list_append(dm_cache_list *list, StoredMessage message);

// Takes an element of this list out.
OwnedNode list_take(dm_cache_list *list, dm_cache_list_node *node);

// Lets go what an element in no list holds, but not the element.
void list_empty_out(dm_cache_list_node *node);

// Walks a list's elements; the loop may remove the element that it stands on.
class Elements {
public:
    explicit Elements(dm_cache_list *list) : head_(list ? &list->head : nullptr) {}

    class Iterator {
    public:
        explicit Iterator(dm_list_head *link) : link_(link), next_(link ? link->next : nullptr) {}
        dm_cache_list_node &operator*() const { return *reinterpret_cast<dm_cache_list_node *>(link_); }
        Iterator &operator++() { return *this = Iterator(next_); }
        bool operator!=(const Iterator &other) const { return link_ != other.link_; }

    private:
        dm_list_head *link_;
        dm_list_head *next_;
    };

    // A row without a list walks like an empty one.
    Iterator begin() const { return Iterator(head_ ? head_->next : nullptr); }
    Iterator end() const { return Iterator(head_); }

private:
    dm_list_head *head_;
};

}  // namespace dm
