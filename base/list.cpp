// The bounded lists: links and counts below, lists of cached messages above. Logs nothing; the callers do. The caller holds the
// cache lock, or owns the list.
//
// A row's own list may have a hash table beside it (row_table.h), which must never know an element that is not there: what adds
// or takes out an element here says so, and what changes links without that, as a client's own calls do, gives the table up.
#include "base/list.h"

#include "base/row_table.h"

namespace dm {

void list_init(dm_list_head *link) {
    link->next = link->prev = link;
}

void list_unlink(dm_list_head *link) {
    link->next->prev = link->prev;
    link->prev->next = link->next;
    list_init(link);
}

namespace {

void link_before(dm_list_head *link, dm_list_head *head) {
    link->prev = head->prev;
    link->next = head;
    head->prev->next = link;
    head->prev = link;
}

// What an element holds is a stored message, unless a client has put one of its own there.
void let_go(dm_cache_list_node *node) {
    if (!node->obj) return;
    if (node->stored)
        ReleaseStored{}(node->obj);
    else
        protobuf_c_message_free_unpacked(node->obj, nullptr);
}

void hold(dm_cache_list_node *node, StoredMessage message) {
    node->obj = message.release();
    node->stored = of_list;
}

}  // namespace

void dm_list_add_tail_no_limit(dm_list_head *link, dm_list_head *head, uint32_t *count) {
    link_before(link, head);
    ++*count;
}

void list_replace(dm_cache_list_node *node, StoredMessage message) {
    let_go(node);
    hold(node, std::move(message));
    node->dirty = 0;
}

dm_cache_list_node *list_append(dm_cache_list *list, StoredMessage message) {
    OwnedNode node(static_cast<dm_cache_list_node *>(calloc(1, sizeof(dm_cache_list_node))));
    if (!node) return nullptr;
    list_init(&node->link);
    hold(node.get(), std::move(message));
    if (list->count >= DM_CACHE_LIST_LIMIT) return nullptr;
    link_before(&node->link, &list->head);
    ++list->count;
    table_take_in(list, node.get());
    return node.release();
}

void list_empty_out(dm_cache_list_node *node) {
    let_go(node);
    free(node->key);
}

OwnedNode list_take(dm_cache_list *list, dm_cache_list_node *node) {
    table_let_go(node);
    list_unlink(&node->link);
    --list->count;
    if (list->count == 0) links_changed(&list->count);  // an empty row keeps no table
    return OwnedNode(node);
}

}  // namespace dm

using namespace dm;

int32_t dm_list_add_tail_with_limit(dm_list_head *link, dm_list_head *head, int32_t *count, int32_t limit) {
    if (!link || !head || !count || *count >= limit) return -1;
    link_before(link, head);
    ++*count;
    links_changed(count);
    return 0;
}

void dm_list_del_with_limit(dm_list_head *link, int32_t *count) {
    if (!link || !count) return;
    list_unlink(link);
    --*count;
    links_changed(count);
}

// Copied first: a failure changes nothing, and the message may be the very one that is replaced.
int32_t dm_cache_list_add(dm_cache_list *list, const void *message, const ProtobufCMessageDescriptor *descriptor,
                          dm_cache_cmp_func cmp) {
    if (!list || !cmp) return -1;
    StoredMessage copy;
    if (const int32_t code = store_copy(static_cast<const ProtobufCMessage *>(message), descriptor, copy); code != 0)
        return code;
    if (dm_cache_list_node *node = dm_cache_list_find(list, cmp, message)) {
        list_replace(node, std::move(copy));
        if (!table_for(list, cmp)) links_changed(&list->count);  // a match function of the client's: the key may differ
        return 1;
    }
    return list_append(list, std::move(copy)) ? 0 : -1;
}

dm_cache_list_node *dm_cache_list_find(dm_cache_list *list, dm_cache_cmp_func cmp, const void *message) {
    if (!cmp || !message) return nullptr;
    if (!list) return nullptr;
    if (const RowTable *table = table_for(list, cmp))
        return find_same(*table, static_cast<const ProtobufCMessage *>(message));
    for (dm_list_head *link = list->head.next; link != &list->head; link = link->next) {
        auto *node = reinterpret_cast<dm_cache_list_node *>(link);
        if (cmp(node->obj, static_cast<const ProtobufCMessage *>(message)) == 0) return node;
    }
    return nullptr;
}

dm_cache_list_node *dm_cache_list_del(dm_cache_list *list, dm_cache_cmp_func cmp, const void *message) {
    dm_cache_list_node *node = dm_cache_list_find(list, cmp, message);
    return node ? list_take(list, node).release() : nullptr;
}

int32_t dm_cache_list_walk(dm_cache_list *list, dm_cache_visit_func visit, void *arg) {
    if (!list || !visit) return -1;
    // The successor is read after the visit: what the visitor appends is still visited.
    for (dm_list_head *link = list->head.next; link != &list->head; link = link->next)
        visit(reinterpret_cast<dm_cache_list_node *>(link)->obj, arg);
    return 0;
}

void dm_cache_list_free(dm_cache_list_node *node) {
    if (!node) return;
    table_let_go(node);
    list_empty_out(node);
    free(node);
}
