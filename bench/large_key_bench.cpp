// Look-up in the table of large keys against the library's binary search over the same index and keys of 128 bits.
#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

constexpr uint32_t keyBits = 128;
using Key = std::array<uint32_t, keyBits / 32>;

struct Table {
    explicit Table(int count) : keys(static_cast<size_t>(count)) {
        std::mt19937 random(1);
        for (auto &key : keys)
            for (auto &word : key) word = static_cast<uint32_t>(random());
        std::sort(keys.begin(), keys.end());
        zelLargeKeyDataCreate(&head, keyBits, count, nullptr, nullptr);
        for (const auto &key : keys) zelLargeKeyDataAdd(&head, key.data(), 1);
        std::shuffle(keys.begin(), keys.end(), random);
    }
    ~Table() { zelLargeKeyDataDestroy(&head); }
    zelLargeKeyHead head;
    std::vector<Key> keys;
};

Table &filled(int count) {
    static std::unique_ptr<Table> table;
    if (!table || table->head.numElems != count) {
        table.reset();
        table = std::make_unique<Table>(count);
    }
    return *table;
}

intptr_t findOurs(Table &table, const Key &key) {
    return zelLargeKeyDataGet(&table.head, key.data());
}

template <class KeyOf>
intptr_t findByLowerBound(Table &table, const Key &key, KeyOf keyOf) {
    const auto &head = table.head;
    const auto compare = [&](int32_t slot, const Key &probe) {
        return BITMAP_COMPARE_BITMAPS(keyOf(head, slot), probe.data(), head.keySize);
    };
    const int32_t *begin = head.index, *end = begin + head.numElems;
    const int32_t *at =
        std::lower_bound(begin, end, key, [&](int32_t slot, const Key &probe) { return compare(slot, probe) < 0; });
    return at != end && compare(*at, key) == 0 ? head.elemInfo[*at].userData : 0;
}

intptr_t findThroughSlots(Table &table, const Key &key) {
    return findByLowerBound(table, key, [](const auto &head, int32_t slot) { return head.elemInfo[slot].key; });
}

// Keys lie one behind the other, which spares a look at the slots.
intptr_t findInKeys(Table &table, const Key &key) {
    return findByLowerBound(table, key, [](const auto &head, int32_t slot) {
        return head.elemInfo[0].key + static_cast<size_t>(slot) * head.keyWords;
    });
}

[[maybe_unused]] const bool rows = [] {
    using Find = intptr_t (*)(Table &, const Key &);
    for (const int count : {1000, 100000, 1000000}) {
        const auto sized = [count](Find find) {
            return [=](benchmark::State &state) {
                Table &table = filled(count);
                size_t at = 0;
                for (auto _ : state) {
                    benchmark::DoNotOptimize(find(table, table.keys[at]));
                    if (++at == table.keys.size()) at = 0;
                }
            };
        };
        zel::bench::addRow(("large key: find, " + std::to_string(count) + " entries").c_str(), "ns",
                           zel::bench::Kind::time)
            .ours(sized(findOurs))
            .peer("std::lower_bound", sized(findThroughSlots), 1.1)
            .peer("the same past the slots", sized(findInKeys));
    }
    return true;
}();

}  // namespace
