// Both list families against std::list, with the structure checked after every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <list>
#include <random>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "zel/containers.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

struct Item {
    int padding = 0;
    zelDLLNode node{};
};

// Every node's neighbours point back at it, the sentinels close both ends, and the order is the model's.
void checkLinks(zelDLL &head, const std::list<zelDLLNode *> &model) {
    ASSERT_EQ(head.headSent.prev, nullptr);
    ASSERT_EQ(head.tailSent.next, nullptr);
    zelDLLNode *before = &head.headSent;
    for (zelDLLNode *expected : model) {
        ASSERT_EQ(before->next, expected);
        ASSERT_EQ(expected->prev, before);
        before = expected;
    }
    ASSERT_EQ(before->next, &head.tailSent);
    ASSERT_EQ(head.tailSent.prev, before);
    ASSERT_EQ(zelDLLGetFirst(&head), model.empty() ? nullptr : model.front());
    ASSERT_EQ(zelDLLGetLast(&head), model.empty() ? nullptr : model.back());
}

TEST(LinkedList, behavesAsStdListUnderRandomOperations) {
    Random random = seeded();
    zelDLL head;
    zelDLLInit(&head);
    std::list<zelDLLNode *> model;
    std::vector<Item> items(120);
    const int steps = isFullRun() ? 200000 : 20000;
    for (int step = 0; step < steps; ++step) {
        zelDLLNode *node = &items[random() % items.size()].node;
        const auto at = std::find(model.begin(), model.end(), node);
        if (at != model.end()) {
            zelDLLNode *next = std::next(at) == model.end() ? nullptr : *std::next(at);
            zelDLLNode *prev = at == model.begin() ? nullptr : *std::prev(at);
            ASSERT_EQ(zelDLLGetNext(&head, node), next);
            ASSERT_EQ(zelDLLGetPrev(&head, node), prev);
            zelDLLRemove(&head, node);
            model.erase(at);
            ASSERT_TRUE(node->next == nullptr && node->prev == nullptr);
        } else {
            const auto where =
                model.empty() ? model.end() : std::next(model.begin(), static_cast<long>(random() % model.size()));
            const auto way = where == model.end() ? random() % 2 : random() % 4;
            if (way == 0) zelDLLInsertAtFront(&head, node), model.push_front(node);
            if (way == 1) zelDLLInsertAtBack(&head, node), model.push_back(node);
            if (way == 2) zelDLLInsertBefore(&head, *where, node), model.insert(where, node);
            if (way == 3) zelDLLInsertAfter(&head, *where, node), model.insert(std::next(where), node);
        }
        if (model.size() <= 64 || step % 1000 == 0) checkLinks(head, model);
        if (HasFatalFailure()) return;
    }
}

TEST(LinkedList, refusesABadHeadAndAMissingNeighbour) {
    zelDLL head;
    zelDLLInit(&head);
    zelDLLNode first{}, second{};
    zelDLLInsertAtBack(&head, &first);
    const int before = reportedAssertions();
    zelDLLInsertAfter(&head, nullptr, &second);
    zelDLLInsertBefore(&head, nullptr, &second);
    head.dll_magic = 0;
    EXPECT_EQ(zelDLLGetFirst(&head), nullptr);
    EXPECT_EQ(zelDLLGetNext(&head, &first), nullptr);
    zelDLLInsertAtFront(&head, &second);
    zelDLLRemove(&head, &first);
    EXPECT_EQ(reportedAssertions(), before + 6);
    EXPECT_EQ(lastAssertion(), "(head)->dll_magic == zelDLL_MAGIC");
    head.dll_magic = zelDLL_MAGIC;
    checkLinks(head, {&first});
}

// The first node knows the length and the last node; the links agree in both directions.
void checkPositions(zelListNode *list, const std::list<intptr_t> &model) {
    ASSERT_EQ(listLength(list), static_cast<int>(model.size()));
    zelListNode *before = nullptr, *node = list;
    for (intptr_t expected : model) {
        ASSERT_NE(node, nullptr);
        ASSERT_EQ(node->data, expected);
        ASSERT_TRUE(!before || node->prev == before);
        before = node;
        node = node->next;
    }
    ASSERT_EQ(node, nullptr);
    ASSERT_TRUE(!list || list->prev == before);
}

TEST(PositionList, behavesAsStdListUnderRandomOperations) {
    Random random = seeded();
    zelListNode *list = nullptr;
    std::list<intptr_t> model;
    const int steps = isFullRun() ? 100000 : 10000;
    for (int step = 0; step < steps; ++step) {
        const int size = static_cast<int>(model.size());
        const int position = static_cast<int>(random() % static_cast<unsigned>(size + 4)) - 1;
        const bool grows = random() % 100 < (size < 80 ? 60u : 40u);
        if (grows) {
            ASSERT_EQ(listAdd(&list, position, step), 0);
            const int behind = position < 0 ? size : std::min(position, size);
            model.insert(std::next(model.begin(), behind), step);
        } else {
            zelListNode *node = listDelete(&list, position);
            ASSERT_EQ(node != nullptr, position >= 1 && position <= size);
            if (node) {
                const auto at = std::next(model.begin(), position - 1);
                ASSERT_EQ(node->data, *at);
                model.erase(at);
                zelMC_free("test", __LINE__, node);
            }
        }
        ASSERT_EQ(listGet(list, -1), model.empty() ? 0 : model.back());
        const unsigned some = random() % static_cast<unsigned>(model.size() + 2);  // from 0 to one behind the last
        const bool isThere = some >= 1 && some <= model.size();
        ASSERT_EQ(listGet(list, static_cast<int>(some)), isThere ? *std::next(model.begin(), some - 1) : 0);
        if (model.size() <= 64 || step % 1000 == 0) checkPositions(list, model);
        if (HasFatalFailure()) return;
    }
    while (list) zelMC_free("test", __LINE__, listDelete(&list, 1));
}

TEST(PositionList, keepsItsOddPositionsOnShortLists) {
    zelListNode *list = nullptr;
    EXPECT_EQ(listDelete(&list, 1), nullptr);
    EXPECT_EQ(listAddPos(&list, 3, 20), 0);  // an empty list takes it as the first
    EXPECT_EQ(listAdd(&list, 1, 30), 0);     // behind the first, not before it
    EXPECT_EQ(listAdd(&list, 0, 10), 0);
    EXPECT_EQ(listAddPos(&list, -2, 5), 0);
    checkPositions(list, {5, 10, 20, 30});
    while (list) zelMC_free("test", __LINE__, listDelete(&list, listLength(list)));
}

TEST(PositionList, findsBytesAtTheAddressesItHolds) {
    const int32_t values[] = {0x01020304, 0x01020305, -1};
    zelListNode *list = nullptr;
    for (const int32_t &value : values) listAddEnd(&list, reinterpret_cast<intptr_t>(&value));
    EXPECT_EQ(listFindLong(list, 0x01020305, 4), 2);
    EXPECT_EQ(listFindLong(list, -1, 400), 3);  // never reads behind the value
    EXPECT_EQ(listFindLong(list, 7, 4), 0);
    EXPECT_EQ(listFindLong(nullptr, 7, 4), 0);
    // As many leading bytes as asked for, as they lie in memory.
    int32_t probe = values[1];
    reinterpret_cast<uint8_t *>(&probe)[3] ^= 0xff;
    EXPECT_EQ(listFindLong(list, probe, 3), std::endian::native == std::endian::big ? 1 : 2);
    while (list) zelMC_free("test", __LINE__, listDelete(&list, 1));
}

}  // namespace
}  // namespace zel::test
