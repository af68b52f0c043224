// Both list families against std::list, with the structure checked after every step.
#include <algorithm>
#include <cerrno>
#include <list>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

void checkEnds(zelDLL &head, const std::list<zelDLLNode *> &model) {
    ASSERT_EQ(checkList(head), std::vector(model.begin(), model.end()));
    ASSERT_EQ(zelDLLGetFirst(&head), model.empty() ? nullptr : model.front());
    ASSERT_EQ(zelDLLGetLast(&head), model.empty() ? nullptr : model.back());
}

TEST(LinkedList, behavesAsStdListUnderRandomOperations) {
    Random random = seeded();
    zelDLL head;
    zelDLLInit(&head);
    std::list<zelDLLNode *> model;
    std::vector<zelDLLNode> nodes(120);
    const int steps = isFullRun() ? 200000 : 20000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        zelDLLNode *node = &nodes[random() % nodes.size()];
        const auto at = std::find(model.begin(), model.end(), node);
        if (at != model.end()) {
            ASSERT_EQ(zelDLLGetNext(&head, node), node == model.back() ? nullptr : *std::next(at));
            ASSERT_EQ(zelDLLGetPrev(&head, node), node == model.front() ? nullptr : *std::prev(at));
            zelDLLRemove(&head, node);
            model.erase(at);
            ASSERT_TRUE(node->next == nullptr && node->prev == nullptr);
        } else {
            auto where = model.begin();
            std::advance(where, model.empty() ? 0 : random() % model.size());
            const auto way = random() % (model.empty() ? 2 : 4);
            if (way == 0) zelDLLInsertAtFront(&head, node), model.push_front(node);
            if (way == 1) zelDLLInsertAtBack(&head, node), model.push_back(node);
            if (way == 2) zelDLLInsertBefore(&head, *where, node), model.insert(where, node);
            if (way == 3) zelDLLInsertAfter(&head, *where, node), model.insert(std::next(where), node);
        }
        if (model.size() <= 64 || step % 1000 == 0) checkEnds(head, model);
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
    checkEnds(head, {&first});
}

class PositionList : public testing::Test {
protected:
    ~PositionList() override {
        while (list) zelMC_free("test", __LINE__, listDelete(&list, 1));
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    void check(const std::list<intptr_t> &model) {
        ASSERT_EQ(checkPositions(list), std::vector(model.begin(), model.end()));
        ASSERT_EQ(listLength(list), static_cast<int>(model.size()));
    }
    zelListNode *list = nullptr;
};

TEST_F(PositionList, behavesAsStdListUnderRandomOperations) {
    Random random = seeded();
    std::list<intptr_t> model;
    const int steps = isFullRun() ? 100000 : 10000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        const int size = static_cast<int>(model.size());
        const int position = static_cast<int>(random() % static_cast<unsigned>(size + 4)) - 1;
        const bool isThere = position >= 1 && position <= size;
        const auto at = std::next(model.begin(), isThere ? position - 1 : 0);
        ASSERT_EQ(listGet(list, position), isThere ? *at : position < 0 && size > 0 ? model.back() : 0);
        if (random() % 100 < (size < 80 ? 60u : 40u)) {
            ASSERT_EQ(listAdd(&list, position, step), 0);
            model.insert(std::next(model.begin(), position < 0 ? size : std::min(position, size)), step);
        } else {
            zelListNode *node = listDelete(&list, position);
            ASSERT_EQ(node != nullptr, isThere);
            if (isThere) model.erase(at);
            zelMC_free("test", __LINE__, node);
        }
        if (model.size() <= 64 || step % 1000 == 0) check(model);
    }
}

TEST_F(PositionList, keepsItsOddPositionsAndIsUnchangedWithoutMemory) {
    EXPECT_EQ(listDelete(&list, 1), nullptr);
    EXPECT_EQ(listAddPos(&list, 3, 20), 0);  // an empty list takes it as the first
    EXPECT_EQ(listAdd(&list, 1, 30), 0);     // behind the first, not before it
    EXPECT_EQ(listAdd(&list, 0, 10), 0);
    EXPECT_EQ(listAddPos(&list, -2, 5), 0);
    for (const int position : {-1, 0, 1}) {
        errno = 0;  // a failure is told from success also when the allocator names no cause
        FailingAllocator::failAt(1);
        testing::internal::CaptureStdout();
        EXPECT_EQ(listAdd(&list, position, 40), ENOMEM);
        const char *name = position < 0 ? "listAddEnd" : position == 0 ? "listAddBegin" : "listAddPos";
        EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(name) + " : malloc failed allocating node\n\r");
    }
    check({5, 10, 20, 30});
}

TEST_F(PositionList, findsBytesAtTheAddressesItHolds) {
    const int32_t values[] = {0x01020304, 0x01020305, -1};
    for (const int32_t &value : values) listAddEnd(&list, reinterpret_cast<intptr_t>(&value));
    EXPECT_EQ(listFindLong(list, 0x01020305, 4), 2);
    EXPECT_EQ(listFindLong(list, -1, 400), 3);  // never reads behind the value
    EXPECT_EQ(listFindLong(list, 7, 4), 0);
    EXPECT_EQ(listFindLong(nullptr, 7, 4), 0);
    // As many leading bytes as asked for, as they lie in memory.
    int32_t probe = values[1];
    reinterpret_cast<uint8_t *>(&probe)[3] ^= 0xff;
    EXPECT_EQ(listFindLong(list, probe, 3), std::endian::native == std::endian::big ? 1 : 2);
}

}  // namespace
}  // namespace zel::test
