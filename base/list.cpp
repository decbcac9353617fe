// The bounded lists: links and counts below, lists of cached messages above. Logs nothing; the callers do. Takes no lock:
// the caller holds the cache lock.
#include "base/list.h"

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

}  // namespace

void dm_list_add_tail_no_limit(dm_list_head *link, dm_list_head *head, uint32_t *count) {
    link_before(link, head);
    ++*count;
}

void list_replace(dm_cache_list_node *node, OwnedMessage message) {
    const OwnedMessage old(node->obj);
    node->obj = message.release();
    node->dirty = 0;
}

dm_cache_list_node *list_append(dm_cache_list *list, OwnedMessage message) {
    OwnedNode node(static_cast<dm_cache_list_node *>(calloc(1, sizeof(dm_cache_list_node))));
    if (!node) return nullptr;
    list_init(&node->link);
    node->obj = message.release();
    if (dm_list_add_tail_with_limit(&node->link, &list->head, &list->count, DM_CACHE_LIST_LIMIT) != 0) return nullptr;
    return node.release();
}

}  // namespace dm

using namespace dm;

int32_t dm_list_add_tail_with_limit(dm_list_head *link, dm_list_head *head, int32_t *count, int32_t limit) {
    if (!link || !head || !count || *count >= limit) return -1;
    link_before(link, head);
    ++*count;
    return 0;
}

void dm_list_del_with_limit(dm_list_head *link, int32_t *count) {
    if (!link || !count) return;
    list_unlink(link);
    --*count;
}

int32_t dm_cache_list_add(dm_cache_list *list, const void *message, const ProtobufCMessageDescriptor *descriptor,
                          dm_cache_cmp_func cmp) {
    if (!list || !cmp) return -1;
    ProtobufCMessage *made = nullptr;
    if (const int32_t code = dm_cache_copy_obj(message, descriptor, &made); code != 0) return code;
    OwnedMessage copy(made);
    if (dm_cache_list_node *node = dm_cache_list_find(list, cmp, message)) {
        list_replace(node, std::move(copy));
        return 1;
    }
    return list_append(list, std::move(copy)) ? 0 : -1;
}

dm_cache_list_node *dm_cache_list_find(dm_cache_list *list, dm_cache_cmp_func cmp, const void *message) {
    if (!cmp || !message) return nullptr;
    if (!list) return nullptr;
    for (dm_list_head *link = list->head.next; link != &list->head; link = link->next) {
        auto *node = reinterpret_cast<dm_cache_list_node *>(link);
        if (cmp(node->obj, static_cast<const ProtobufCMessage *>(message)) == 0) return node;
    }
    return nullptr;
}

dm_cache_list_node *dm_cache_list_del(dm_cache_list *list, dm_cache_cmp_func cmp, const void *message) {
    dm_cache_list_node *node = dm_cache_list_find(list, cmp, message);
    if (node) dm_list_del_with_limit(&node->link, &list->count);
    return node;
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
    if (node->obj) protobuf_c_message_free_unpacked(node->obj, nullptr);
    free(node->key);
    free(node);
}
