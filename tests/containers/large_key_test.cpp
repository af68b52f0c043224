// The table of large keys against a std::map, and what it prints.
#include <algorithm>
#include <map>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"

namespace zel::test {
namespace {

constexpr int32_t slots = 90;

class LargeKey : public testing::TestWithParam<uint32_t> {
protected:
    struct Entry {
        int references;
        intptr_t data;
    };
    using Words = std::vector<uint32_t>;
    // The vector's own order is wrong on big-endian hosts with some versions of the C++ library.
    struct InOrder {
        bool operator()(const Words &a, const Words &b) const {
            const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin());
            return x != a.end() && *x < *y;
        }
    };

    LargeKey() { EXPECT_EQ(zelLargeKeyDataCreate(&head, GetParam(), slots, nullptr, nullptr), 0); }
    ~LargeKey() override {
        zelLargeKeyDataDestroy(&head);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    // Keys that part in few bits, the first, the last or all of them, with noise behind their width.
    Words randomKey() {
        const uint32_t bits = head.keySize;
        Words key((bits + 31) / 32, random() % 4 ? 0 : UINT32_MAX);
        for (int flips = 0; flips < 3; ++flips) {
            const uint32_t bit = random() % 3 ? random() % bits : bits - 1;
            key[bit / 32] ^= 0x80000000u >> bit % 32;
        }
        if (bits % 32) key.back() ^= random() >> bits % 32;
        return key;
    }
    Words clean(Words key) const {
        if (head.keySize % 32) key.back() &= ~(UINT32_MAX >> head.keySize % 32);
        return key;
    }

    void add(const Words &key) {
        const bool isNew = !model.count(clean(key)), fits = model.size() < slots;
        int32_t slot = 0;
        while (slot < slots && head.elemInfo[slot].refCount) ++slot;
        const auto data = static_cast<intptr_t>(random() | 1);
        ASSERT_EQ(zelLargeKeyDataAdd(&head, key.data(), data), isNew && !fits ? -1 : 0);
        if (!isNew || !fits) return;
        ASSERT_EQ(head.elemInfo[slot].userData, data) << "not in the lowest free slot";
        model[clean(key)] = {1, data};
    }

    void drop(const Words &key) {
        const auto at = model.find(clean(key));
        if (at == model.end()) {
            ASSERT_EQ(zelLargeKeyDataDelete(&head, key.data(), nullptr), -1);
            return;
        }
        const auto position = static_cast<int>(std::distance(model.begin(), at));
        const uint32_t way = random() % 3;
        intptr_t data = 0;
        const int left = way == 0   ? zelLargeKeyDataDelete(&head, key.data(), &data)
                         : way == 1 ? zelLargeKeyDataRemove(&head, position)
                                    : largeKeyDataDelRef(&head, key.data());
        ASSERT_EQ(left, --at->second.references);
        ASSERT_EQ(data, way == 0 ? at->second.data : 0);
        if (left == 0) model.erase(at);
    }

    void refer(const Words &key) {
        const auto at = model.find(clean(key));
        ASSERT_EQ(zelLargeKeyDataGet(&head, key.data()), at == model.end() ? 0 : at->second.data);
        ASSERT_EQ(zelLargeKeyDataAddRef(&head, key.data()), at == model.end() ? -1 : ++at->second.references);
    }

    void check() {
        const auto entries = checkLargeKeys(head);
        ASSERT_EQ(entries.size(), model.size());
        int position = -1;
        uint32_t *key = nullptr;
        intptr_t data = 0;
        for (const auto &[words, entry] : model) {
            position = zelLargeKeyDataGetNext(&head, position, &key, &data);
            ASSERT_GE(position, 0);
            Words stored(key, key + head.keyWords);
            stored.resize(words.size());
            ASSERT_EQ(stored, words);
            ASSERT_TRUE(words.size() == head.keyWords || key[words.size()] == 0);
            ASSERT_EQ(data, entry.data);
            ASSERT_EQ(entries[static_cast<size_t>(position)]->refCount, entry.references);
        }
        ASSERT_EQ(zelLargeKeyDataGetNext(&head, position, &key, &data), -1);
        ASSERT_EQ(static_cast<size_t>(zelLargeKeyDataCount(&head)), model.size());
    }

    Random random = seeded();
    zelLargeKeyHead head;
    std::map<Words, Entry, InOrder> model;
};

TEST_P(LargeKey, agreesWithAMap) {
    const int steps = isFullRun() ? 1000000 : 100000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        const Words key = randomKey();
        const bool grows = step / 3000 % 2 == 0;
        const uint32_t choice = random() % 10;
        if (choice == 0)
            refer(key);
        else
            choice < (grows ? 8 : 2) ? add(key) : drop(key);
        if (model.size() <= 64 || step % 1000 == 0) check();
    }
}

INSTANTIATE_TEST_SUITE_P(Bits, LargeKey, testing::Values(1, 31, 32, 33, 128, 250));

// ---- The calls that no random run reaches ----

TEST(LargeKeyTable, creationFailsWithEveryAllocationInTurn) {
    zelLargeKeyHead head;
    EXPECT_EQ(zelLargeKeyDataCreate(&head, 128, 0, nullptr, nullptr), -1);
    for (unsigned nth = 1; nth <= 4; ++nth) {
        FailingAllocator::failAt(nth);
        EXPECT_EQ(zelLargeKeyDataCreate(&head, 128, 10, nullptr, nullptr), -1);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    const uint32_t key[4] = {1, 2, 3, 4};
    EXPECT_EQ(zelLargeKeyDataAdd(&head, key, 1), -1);
    EXPECT_EQ(zelLargeKeyDataCreate(&head, 128, 10, nullptr, nullptr), 0);
    EXPECT_EQ(head.keyWords, 5u);
    zelLargeKeyDataDestroy(&head);
}

TEST(LargeKeyTable, tracesWhatItDoes) {
    zelLargeKeyHead head;
    const auto print = [](const uint32_t *key) { printf("<%x>", *key); };
    ASSERT_EQ(zelLargeKeyDataCreate(&head, 32, 2, print, nullptr), 0);
    const uint32_t key = 5, later = 9;
    zelLargeKeySetDbgFlag(&head, 15);
    testing::internal::CaptureStdout();
    zelLargeKeyDataAdd(&head, &key, 1);
    zelLargeKeyDataAdd(&head, &key, 1);
    EXPECT_EQ(zelLargeKeyDataDelete(&head, &later, nullptr), -1);
    EXPECT_EQ(zelLargeKeyDataDelete(&head, &key, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ADD\r<5>  Current State is\r    Max 2 entries, total 0 entries, keySize is 32 bits\r\n"
              "SEARCH\r<5>    No match; insert pos 0\r\n    Search failed; inserting new element\r"
              "ADD\r<5>  Current State is\r    Max 2 entries, total 1 entries, keySize is 32 bits\r\n"
              "SEARCH\r<5>    start: 0; end 0; curPos 0; index[curPos] 0; Compare with \r\n<5>    result is 0\r\n"
              "    Found match at pos 0\r\n    Search successful; found at pos 0\r\n"
              "DEL\r<9>  Current State is\r    Max 2 entries, total 1 entries, keySize is 32 bits\r\n"
              "SEARCH\r<9>    start: 0; end 0; curPos 0; index[curPos] 0; Compare with \r\n<5>    result is -1\r\n"
              "    No match; insert pos 1\r\n    ***********Search failed*********\r"
              "DEL\r<5>  Current State is\r    Max 2 entries, total 1 entries, keySize is 32 bits\r\n"
              "SEARCH\r<5>    start: 0; end 0; curPos 0; index[curPos] 0; Compare with \r\n<5>    result is 0\r\n"
              "    Found match at pos 0\r\n    Found at pos 0; deleting\r\n");
    zelLargeKeyDataDestroy(&head);
}

TEST(LargeKeyTable, refusesWhatIsMissing) {
    zelLargeKeyHead head;
    ASSERT_EQ(zelLargeKeyDataCreate(&head, 32, 2, nullptr, nullptr), 0);
    const uint32_t key = 5;
    EXPECT_EQ(zelLargeKeyDataAdd(&head, &key, 0), -1);
    EXPECT_EQ(lastAssertion(), "((key) && (userData))");
    EXPECT_EQ(zelLargeKeyDataRemove(&head, 0), -1);
    EXPECT_EQ(lastAssertion(), "dataHead->numElems > 0");
    zelLargeKeyDataAdd(&head, &key, 1);
    for (const int position : {-1, 1}) EXPECT_EQ(zelLargeKeyDataRemove(&head, position), -1);
    EXPECT_EQ(lastAssertion(), "((deletePos >= 0) && (deletePos < dataHead->numElems))");
    EXPECT_EQ(zelLargeKeyDataDelete(&head, nullptr, nullptr), -1);
    EXPECT_EQ(zelLargeKeyDataCount(nullptr), 0);
    EXPECT_EQ(reportedAssertions(), 6);
    for (const int position : {-2, 0, INT32_MAX})
        EXPECT_EQ(zelLargeKeyDataGetNext(&head, position, nullptr, nullptr), -1);
    head.elemInfo[0].refCount = INT32_MAX;
    EXPECT_EQ(zelLargeKeyDataAddRef(&head, &key), -1);
    zelLargeKeyDataDestroy(&head);
}

TEST(Bitmap, theNextClearBitIsFoundAcrossWordsAndNotBehindTheEnd) {
    const uint32_t bitmap[] = {0xfffffffe, 0xffffffff, 0x7fffffff};
    EXPECT_EQ(GET_NEXT_UNSET_BIT_BITMAP(bitmap, 96, -1), 31);
    EXPECT_EQ(GET_NEXT_UNSET_BIT_BITMAP(bitmap, 96, 31), 64);
    EXPECT_EQ(GET_NEXT_UNSET_BIT_BITMAP(bitmap, 64, 31), -1);
    EXPECT_EQ(GET_NEXT_UNSET_BIT_BITMAP(bitmap, 31, -1), -1);
    EXPECT_EQ(GET_NEXT_UNSET_BIT_BITMAP(bitmap, 96, 64), -1);
}

}  // namespace
}  // namespace zel::test
