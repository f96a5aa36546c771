// Intrusive doubly linked list: links and unlinks nodes its users own, never allocates.
#include "kep_list.h"

#include "base/api.h"
#include "tree/tree_internal.h"

namespace kep {
namespace {

// Counts every change of any list, so that what was found by walking one (an index
// of a table's sections) can tell whether it still holds.
unsigned long gGeneration;

void changed() {
    __atomic_add_fetch(&gGeneration, 1, __ATOMIC_RELAXED);
}

}  // namespace

unsigned long listGeneration() {
    return __atomic_load_n(&gGeneration, __ATOMIC_RELAXED);
}

}  // namespace kep

KEP_API void lstInit(LstList *list) {
    kep::changed();
    list->head = nullptr;
    list->tail = nullptr;
    list->count = 0;
}

KEP_API void lstInsert(LstList *list, LstNode *previous, LstNode *node) {
    kep::changed();
    LstNode *follower;
    if (previous) {
        follower = previous->next;
        previous->next = node;
    } else {
        follower = list->head;
        list->head = node;
    }
    if (follower) {
        follower->previous = node;
    } else {
        list->tail = node;
    }
    node->previous = previous;
    node->next = follower;
    list->count++;
}

KEP_API void lstAdd(LstList *list, LstNode *node) {
    lstInsert(list, list->tail, node);
}

KEP_API int lstCount(LstList *list) {
    return list->count;
}

KEP_API void lstDelete(LstList *list, LstNode *node) {
    kep::changed();
    if (node->previous) {
        node->previous->next = node->next;
    } else {
        list->head = node->next;
    }
    if (node->next) {
        node->next->previous = node->previous;
    } else {
        list->tail = node->previous;
    }
    list->count--;
}

KEP_API LstNode *lstFirst(LstList *list) {
    return list->head;
}

KEP_API LstNode *lstGet(LstList *list) {
    LstNode *node = list->head;
    if (!node) return nullptr;
    kep::changed();
    list->head = node->next;
    if (list->head) {
        list->head->previous = nullptr;
    } else {
        list->tail = nullptr;
    }
    list->count--;
    return node;
}

KEP_API LstNode *lstNext(LstNode *node) {
    return node->next;
}

KEP_API void lstFree(LstList *list) {
    LstNode *node;
    while ((node = lstFirst(list)) != nullptr) lstDelete(list, node);
}
