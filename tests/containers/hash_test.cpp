// The hash table against a vector of lists, and its bucket numbers against the checksum's definition.
#include <algorithm>
#include <deque>
#include <functional>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"

namespace zel::test {
namespace {

struct Item {
    zelDLLNode node{};
    uint32_t key = 0;
};

// Both arguments are read, so that a list of arguments that was used up gives itself away.
int compareKey(void *record, va_list arguments) {
    const int salt = va_arg(arguments, int);
    return static_cast<Item *>(record)->key + static_cast<uint32_t>(salt) != va_arg(arguments, uint32_t);
}

class RandomHash : public testing::TestWithParam<int> {
protected:
    struct Bucket {
        std::deque<Item *> items;
        uint32_t hits = 0;
        size_t hwm = 0;
    };

    Random random = seeded();
    zelHash *table = zelHashCreate(GetParam(), FailingAllocator::allocate, FailingAllocator::release);
    std::vector<Bucket> model = std::vector<Bucket>(static_cast<size_t>(GetParam()));

    ~RandomHash() override {
        zelHashDestroy(table);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    uint32_t bucketOf(uint32_t key) { return zelHashGetKey(table, &key, sizeof key); }
    zelHashBucket *bucketAt(size_t bid) { return table->hh_buckets + bid; }

    // All records with their buckets, in the order of steps.
    std::vector<std::pair<Item *, zelHashBucket *>> all() {
        std::vector<std::pair<Item *, zelHashBucket *>> items;
        for (size_t bid = 0; bid < model.size(); ++bid)
            for (Item *item : model[bid].items) items.emplace_back(item, bucketAt(bid));
        return items;
    }

    void insert() {
        auto *item = new Item{{}, random() % 500};
        const uint32_t bid = bucketOf(item->key);
        Bucket &bucket = model[bid];
        const bool inFront = random() % 2;
        (inFront ? zelHashInsertAtFront : zelHashInsertAtBack)(table, bid, item);
        bucket.items.insert(inFront ? bucket.items.begin() : bucket.items.end(), item);
        ++bucket.hits;
        bucket.hwm = std::max(bucket.hwm, bucket.items.size());
    }

    void find() {
        const uint32_t key = random() % 500, bid = bucketOf(key);
        const auto &items = model[bid].items;
        const auto expected = std::find_if(items.begin(), items.end(), [=](Item *item) { return item->key == key; });
        zelHashBucket *cursor = bucketAt(0);
        void *found = zelHashFind(table, &cursor, bid, compareKey, 7, key + 7);
        ASSERT_EQ(found, expected == items.end() ? nullptr : *expected);
        ASSERT_EQ(cursor, found ? bucketAt(bid) : nullptr);
    }

    // Removes a random record, with a step to the next one or without.
    void remove() {
        const auto items = all();
        if (items.empty()) return;
        const size_t at = random() % items.size();
        auto [item, bucket] = items[at];
        zelHashBucket *cursor = bucket;
        if (random() % 2) {
            zelHashRemove(table, &cursor, item);
            ASSERT_EQ(cursor, bucket);
        } else {
            const bool isLast = at + 1 == items.size();
            ASSERT_EQ(zelHashRemoveAndGetNext(table, &cursor, item), isLast ? nullptr : items[at + 1].first);
            ASSERT_EQ(cursor, isLast ? nullptr : items[at + 1].second);
        }
        std::erase(model[static_cast<size_t>(bucket - table->hh_buckets)].items, item);
        delete item;
    }

    void checkSteps() {
        const auto items = all();
        zelHashBucket *cursor = nullptr;
        void *record = nullptr;
        for (auto [item, bucket] : items) {
            record = zelHashGetNext(table, &cursor, record);
            ASSERT_TRUE(record == item && cursor == bucket);
            zelHashBucket *some = bucket;
            ASSERT_EQ(zelHashGetBucketFirst(table, &some),
                      model[static_cast<size_t>(bucket - table->hh_buckets)].items.front());
        }
        ASSERT_EQ(record ? zelHashGetNext(table, &cursor, record) : nullptr, nullptr);
        ASSERT_EQ(cursor, nullptr);

        // Backwards, bucket 0 is reached from another bucket only.
        const bool hasLast = !items.empty() && items.back().second != table->hh_buckets;
        ASSERT_EQ(record = zelHashGetLast(table, &cursor), hasLast ? items.back().first : nullptr);
        for (size_t left = hasLast ? items.size() : 0; left-- > 0;) {
            ASSERT_TRUE(record == items[left].first && cursor == items[left].second);
            record = zelHashGetPrev(table, &cursor, record);
        }
        ASSERT_TRUE(!record && !cursor);
    }

    void checkStatistics() {
        checkHash(*table);
        for (uint32_t bid = 0; bid < model.size(); ++bid) {
            uint32_t total, nodes, hits, hwm;
            zelHashStat(table, bid, &total, &nodes, &hits, &hwm);
            ASSERT_TRUE(total == table->hh_curnum && nodes == model[bid].items.size());
            ASSERT_TRUE(hits == model[bid].hits && hwm == model[bid].hwm);
        }
    }
};

TEST_P(RandomHash, agreesWithTheModel) {
    const int steps = isFullRun() ? 1'000'000 : 100'000;
    for (int step = 0; step < steps; ++step) {
        const bool grows = step % 400 < 200;
        random() % 4 < (grows ? 3u : 1u) ? insert() : remove();
        find();
        if (table->hh_curnum <= 64 ? random() % 8 == 0 : step % 1000 == 0) {
            checkSteps();
            checkStatistics();
        }
        if (HasFatalFailure()) return;
    }
    while (table->hh_curnum > 0) remove();
    checkStatistics();
}

INSTANTIATE_TEST_SUITE_P(Sizes, RandomHash, testing::Values(1, 2, 32));

// ---- Bucket numbers -----------------------------------------------------------------------------------------------

uint32_t definedBucket(const std::vector<uint8_t> &key, uint32_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < key.size(); ++i) sum += i % 2 ? key[i] : static_cast<uint32_t>(key[i]) << 8;
    if (sum > 0xffff) sum = (sum >> 16) + (sum & 0xffff);
    if (sum > 0xffff) sum -= 0xffff;
    return ~sum & (size - 1) & 0xffff;
}

TEST(HashKey, isTheChecksumOfTheKey) {
    Random random = seeded();
    for (const int size : {1, 16, 65536, 1 << 20}) {
        zelHash *table = zelHashCreate(size, nullptr, nullptr);
        EXPECT_EQ(zelHashGetKey(table, nullptr, 4), 0u);
        EXPECT_EQ(zelHashGetKey(table, "", 0), 0u);
        const auto check = [&](size_t length, auto fill) {
            std::vector<uint8_t> key(length);
            for (auto &byte : key) byte = static_cast<uint8_t>(fill());
            const uint32_t bid = zelHashGetKey(table, key.data(), static_cast<uint32_t>(length));
            ASSERT_EQ(bid, definedBucket(key, static_cast<uint32_t>(size))) << length << " bytes";
        };
        for (size_t length = 1; length < 70; ++length) {
            for (int i = 0; i < 20; ++i) check(length, random);
            check(length, [] { return 0; });
            check(length, [] { return 0xff; });
        }
        // Around the length from which the sum may wrap, and where it does so more than once.
        for (const size_t length : {131071u, 131072u, 131073u, 131074u, 131076u, 700001u})
            check(length, [] { return 0xff; });
        zelHashDestroy(table);
    }
}

// ---- Creation, and bad arguments ----------------------------------------------------------------------------------

TEST(Hash, creationFailsWhole) {
    for (const unsigned nth : {1u, 2u}) {
        FailingAllocator::failAt(nth);
        EXPECT_EQ(zelHashCreate(8, FailingAllocator::allocate, FailingAllocator::release), nullptr);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    for (const int size : {12, -16, INT32_MIN, 0}) {
        EXPECT_EQ(zelHashCreate(size, nullptr, nullptr), nullptr);
        EXPECT_EQ(lastAssertion(), "((size) ? ((((size) & ((size) - 1)) == 0) ? 1 : 0) : 0)");
    }
    EXPECT_EQ(reportedAssertions(), 5) << "a size of 0 fails in two ways";
}

TEST(Hash, reportsBadArguments) {
    zelHash *table = zelHashCreate(4, nullptr, nullptr), foreign{};
    Item item;
    zelHashInsertAtBack(table, 3, &item);
    zelHashBucket *none = nullptr, *beyond = table->hh_buckets + 4, *last = beyond - 1, *ahead = beyond - 5;
    uint32_t word;
    expectReports({
        {"bid < hh->hh_size", [&] { return zelHashInsertAtFront(table, 4, &item), true; }},
        {"bid < hh->hh_size", [&] { return !zelHashFind(table, &none, ~0u, compareKey, 0, 0u); }},
        {"bid < hh->hh_size", [&] { return zelHashStat(table, 4, &word, &word, &word, &word), true; }},
        {"bucket", [&] { return zelHashRemove(table, &none, &item), true; }},
        {"bucket", [&] { return !zelHashRemoveAndGetNext(table, &beyond, &item); }},
        {"bucket", [&] { return !zelHashGetNext(table, &beyond, &item); }},
        {"bucket", [&] { return !zelHashGetPrev(table, &beyond, &item); }},
        {"bucket", [&] { return !zelHashGetBucketFirst(table, &ahead); }},
        {"record", [&] { return !zelHashRemoveAndGetNext(table, &last, nullptr); }},
        {"record", [&] { return zelHashInsertAtBack(table, 3, nullptr), true; }},
        {"hh->hh_magic == zelHASH_MAGIC", [&] { return zelHashInit(&foreign), true; }},
        {"hh->hh_magic == zelHASH_MAGIC", [&] { return !zelHashGetPrev(nullptr, &last, &item); }},
    });
    zelHashInit(nullptr);
    EXPECT_EQ(zelHashGetNext(table, &none, &item), &item) << "a null cursor starts over";
    EXPECT_EQ(table->hh_curnum, 1u);
    zelHashInit(table);
    EXPECT_EQ(table->hh_curnum + table->hh_buckets[3].h_hits + table->hh_buckets[3].h_hwm, 0u);
    zelHashInsertAtBack(table, 3, &item);
    zelHashDestroy(table);
    EXPECT_EQ(lastAssertion(), "!t->h_curnum");
    EXPECT_EQ(FailingAllocator::live(), 0);
}

// ---- The console --------------------------------------------------------------------------------------------------

std::string consoleAnswers(const char *input, const std::function<void()> &console) {
    FILE *file = tmpfile();
    fputs(input, file);
    rewind(file);
    std::swap(stdin, file);
    testing::internal::CaptureStdout();
    console();
    std::swap(stdin, file);
    fclose(file);
    std::string answers = testing::internal::GetCapturedStdout();
    for (size_t at; (at = answers.find("\nPrompt: ")) != std::string::npos;) answers.replace(at, 9, "> ");
    return answers;
}

TEST(HashConsole, answersEachOperation) {
    // These values share a bucket on hosts of either byte order.
    EXPECT_EQ(consoleAnswers("3\n8 21\n7 5\n3\n5\n5\n4\n6\n9 5\n10\n10\n9 5\n11\n13\n0\nx\n7\n\n2\n3\n", zelHashTest),
              "> No first entry found.\n> > > Fisrt entry 5\n> Next entry 21\n> No next entry found.\n"
              "> Last entry 21\n> Prev entry 5\n> Found entry 5\n> > No entry found.\n> No entry found.\n> Entry 21\n"
              "> Bad operation.\n> Bad operation.\n> Bad number of arguments.\n> Bad number of arguments.\n"
              "> Bad number of arguments.\n> ");
    EXPECT_EQ(FailingAllocator::live(), 0);
    zelHash *table = zelHashCreate(2, nullptr, nullptr);
    EXPECT_EQ(consoleAnswers("4\n6\n11\n12\n1", [&] { zelHashAttach(table, nullptr); }),
              "> No last entry found.\n> No prev entry found.\n> No user supplied print function.\n"
              "> Hash table has 0 nodes currently\n"
              "Bucket      0:          0 hits,          0 nodes,          0 hwm\n"
              "Bucket      1:          0 hits,          0 nodes,          0 hwm\n"
              ">  1 Help\n 2 Quit\n 3 Get first\n 4 Get last\n 5 Get next\n 6 Get prev\n 7 Insert front\n"
              " 8 Insert back\n 9 Find\n10 Remove\n11 Print all\n12 Hash Stat\n> ");
    zelHashDestroy(table);
    EXPECT_EQ(consoleAnswers("1\n", [] { zelHashAttach(nullptr, nullptr); }), "Illegal magic: not a hash head.\n");
}

}  // namespace
}  // namespace zel::test
