// The hash table against an intrusive one with as many buckets, for records of one shape with a key of 16 bytes, as of
// an IPv6 address, looked for in random order, hashing included; and the table's checksum against the loop that defines
// it.
#include <algorithm>
#include <array>
#include <boost/intrusive/unordered_set.hpp>
#include <random>
#include <string_view>
#include <vector>

#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

constexpr int bucketCount = 65536;  // the most that the checksum reaches

struct Address {
    std::array<uint32_t, 4> words{};
    bool operator==(const Address &) const = default;
};
struct HashOfAddress {
    size_t operator()(const Address &address) const {
        return std::hash<std::string_view>()({reinterpret_cast<const char *>(&address), sizeof address});
    }
};

struct Body {
    Address key;
    uint32_t value = 0;
    uint32_t more[3] = {};
};

struct Ours : zelDLLNode, Body {};

struct Theirs : boost::intrusive::unordered_set_base_hook<>, Body {};
struct KeyOf {
    using type = Address;
    const type &operator()(const Theirs &record) const { return record.key; }
};
namespace intrusive = boost::intrusive;
using TheirTable = intrusive::unordered_multiset<Theirs, intrusive::key_of_value<KeyOf>, intrusive::hash<HashOfAddress>,
                                                 intrusive::power_2_buckets<true>>;

// Records with random keys, and those keys in the order in which they are looked for.
template <class Record>
struct Sample {
    explicit Sample(size_t count) : records(count) {
        std::mt19937 random(1);
        for (auto &record : records) {
            for (auto &word : record.key.words) word = static_cast<uint32_t>(random());
            asked.push_back(record.key);
        }
        std::shuffle(asked.begin(), asked.end(), random);
    }
    std::vector<Record> records;
    std::vector<Address> asked;
};

int compareKey(void *record, va_list arguments) {
    return static_cast<Ours *>(record)->key != *va_arg(arguments, const Address *);
}

void ourFind(benchmark::State &state, size_t count) {
    Sample<Ours> sample(count);
    zelHash *table = zelHashCreate(bucketCount, nullptr, nullptr);
    for (auto &record : sample.records)
        zelHashInsertAtBack(table, zelHashGetKey(table, &record.key, sizeof(Address)), &record);
    size_t at = 0;
    for (auto _ : state) {
        const Address *key = &sample.asked[at];
        zelHashBucket *cursor;
        void *found = zelHashFind(table, &cursor, zelHashGetKey(table, key, sizeof *key), compareKey, key);
        benchmark::DoNotOptimize(static_cast<Ours *>(found)->value);
        if (++at == count) at = 0;
    }
    zelHashInit(table);
    zelHashDestroy(table);
}

void theirFind(benchmark::State &state, size_t count) {
    Sample<Theirs> sample(count);
    std::vector<TheirTable::bucket_type> buckets(bucketCount);
    TheirTable table({buckets.data(), buckets.size()});
    for (auto &record : sample.records) table.insert(record);
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.find(sample.asked[at])->value);
        if (++at == count) at = 0;
    }
    table.clear();
}

ZEL_ROW("zelHash find, 100,000 records in 65,536 buckets", "ns", time)
    .ours([](auto &state) { ourFind(state, 100000); })
    .peer(
        "boost::intrusive::unordered_set", [](auto &state) { theirFind(state, 100000); }, 1.5, 1.0);
ZEL_ROW("zelHash find, 1,000,000 records in 65,536 buckets", "ns", time)
    .ours([](auto &state) { ourFind(state, 1000000); })
    .peer(
        "boost::intrusive::unordered_set", [](auto &state) { theirFind(state, 1000000); }, 1.5, 1.0);

using Key = std::array<uint8_t, 48>;

std::vector<Key> randomKeys() {
    std::mt19937 random(1);
    std::vector<Key> keys(64);
    for (auto &key : keys)
        for (auto &byte : key) byte = static_cast<uint8_t>(random());
    return keys;
}

inline uint32_t foldPairs(const uint8_t *key, uint32_t length, uint32_t mask) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i + 1 < length; i += 2) sum += static_cast<uint32_t>(key[i] << 8 | key[i + 1]);
    if (length & 1) sum += static_cast<uint32_t>(key[length - 1] << 8);
    sum = (sum >> 16) + (sum & 0xffff);
    sum += sum >> 16;
    return ~sum & mask & 0xffff;
}

// As written, and as a compiler with vectors makes it.
[[gnu::noinline, gnu::optimize("no-tree-vectorize")]] uint32_t foldOneByOne(const uint8_t *key, uint32_t length,
                                                                            uint32_t mask) {
    return foldPairs(key, length, mask);
}
[[gnu::noinline]] uint32_t foldInVectors(const uint8_t *key, uint32_t length, uint32_t mask) {
    return foldPairs(key, length, mask);
}

template <class Fold>
void fold(benchmark::State &state, Fold foldKey) {
    const auto keys = randomKeys();
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(foldKey(keys[at].data(), static_cast<uint32_t>(sizeof(Key))));
        at = (at + 1) % keys.size();
    }
}

void ourFold(benchmark::State &state) {
    zelHash *table = zelHashCreate(bucketCount, nullptr, nullptr);
    fold(state, [table](const uint8_t *key, uint32_t length) { return zelHashGetKey(table, key, length); });
    zelHashDestroy(table);
}

template <uint32_t foldKey(const uint8_t *, uint32_t, uint32_t)>
void theirFold(benchmark::State &state) {
    fold(state, [](const uint8_t *key, uint32_t length) { return foldKey(key, length, bucketCount - 1); });
}

ZEL_ROW("zelHashGetKey, 48 bytes", "ns", time)
    .ours(ourFold)
    .peer("byte pairs", theirFold<foldOneByOne>, 0.5)
    .peer("byte pairs, vectorised", theirFold<foldInVectors>);

}  // namespace
