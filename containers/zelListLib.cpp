// The allocating list with positions.
//
// A list is the pointer to its first node. The first node's `prev` is the last node, which makes appending constant,
// and only the first node's `count` is the length: nodes that stop being first keep a stale one, and whichever node
// becomes first is given the right one.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zel/containers.h"
#include "zel/platform.h"

namespace {

constexpr char tag[] = "zelListLib";

// A new node holding `data`; null after the report, with the cause in *error, which is never 0.
zelListNode *makeNode(intptr_t data, const char *function, int *error) {
    auto *node = static_cast<zelListNode *>(zelMC_calloc(tag, __LINE__, 1, sizeof(zelListNode)));
    if (!node) {
        *error = errno ? errno : ENOMEM;
        printf("%s : malloc failed allocating node\n\r", function);
        return nullptr;
    }
    node->data = data;
    return node;
}

void becomeFirst(zelListNode **list, zelListNode *node) {
    zelListNode *first = *list;
    node->prev = first ? first->prev : node;
    node->next = first;
    node->count = first ? first->count + 1 : 1;
    if (first) first->prev = node;
    *list = node;
}

void linkBehind(zelListNode *first, zelListNode *before, zelListNode *node) {
    node->prev = before;
    node->next = before->next;
    (node->next ? node->next : first)->prev = node;
    before->next = node;
    ++first->count;
}

// The first of two nodes or more leaves; `count` nodes were there.
void dropFirst(zelListNode **list) {
    zelListNode *first = *list, *second = first->next;
    if (second) {
        second->prev = first->prev;
        second->count = first->count - 1;
    }
    *list = second;
}

}  // namespace

int listAdd(zelListNode **list, int position, intptr_t data) {
    if (position < 0) return listAddEnd(list, data);
    if (position == 0) return listAddBegin(list, data);
    return listAddPos(list, position, data);
}

int listAddBegin(zelListNode **list, intptr_t data) {
    int error = 0;
    zelListNode *node = makeNode(data, __func__, &error);
    if (!node) return error;
    becomeFirst(list, node);
    return 0;
}

int listAddEnd(zelListNode **list, intptr_t data) {
    int error = 0;
    zelListNode *node = makeNode(data, __func__, &error);
    if (!node) return error;
    if (*list)
        linkBehind(*list, (*list)->prev, node);
    else
        becomeFirst(list, node);
    return 0;
}

int listAddPos(zelListNode **list, int position, intptr_t data) {
    int error = 0;
    zelListNode *node = makeNode(data, __func__, &error);
    if (!node) return error;
    if (!*list || position < 1) {
        becomeFirst(list, node);
        return 0;
    }
    zelListNode *before = *list;
    for (int at = 1; at < position && before->next; ++at) before = before->next;
    linkBehind(*list, before, node);
    return 0;
}

zelListNode *listDelete(zelListNode **list, int position) {
    zelListNode *first = *list;
    if (!first || position < 1 || static_cast<uint32_t>(position) > first->count) return nullptr;
    if (position == 1) {
        dropFirst(list);
        return first;
    }
    zelListNode *node = first;
    for (int at = 1; at < position && node; ++at) node = node->next;
    if (!node) {
        printf("%s : Invalid list delete\r\n", __func__);
        return nullptr;
    }
    node->prev->next = node->next;
    (node->next ? node->next : first)->prev = node->prev;
    --first->count;
    return node;
}

intptr_t listGet(zelListNode *list, int position) {
    if (!list || position == 0) return 0;
    if (position < 0) return list->prev->data;
    if (static_cast<uint32_t>(position) > list->count) return 0;
    for (int at = 1; at < position && list; ++at) list = list->next;
    return list ? list->data : 0;
}

int listLength(zelListNode *list) {
    return list ? static_cast<int>(list->count) : 0;
}

int listFindLong(zelListNode *list, int32_t value, int length) {
    if (length < 0) return 0;
    const size_t bytes = length < static_cast<int>(sizeof value) ? static_cast<size_t>(length) : sizeof value;
    int position = 1;
    for (; list; list = list->next, ++position)
        if (list->data != 0 && memcmp(reinterpret_cast<const void *>(list->data), &value, bytes) == 0) return position;
    return 0;
}
