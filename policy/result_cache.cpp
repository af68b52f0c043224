#include "policy/result_cache.h"

#include <atomic>
#include <bit>
#include <cstring>

#include "kernel/task.h"
#include "platform/quick_mutex.h"
#include "zel/platform.h"

namespace zel::policy {
namespace {

constexpr char source[] = "zelbgp_regex";
constexpr std::size_t lineBytes = 64, leastKeyBytes = 24;
constexpr std::uint32_t placeBits = 20, mostAttributes = (1u << placeBits) - 2;

// A place of the table, which begins a line of memory. Behind it stand its results, then its key. `uses` counts how
// often it was taken; odd while it is in use.
struct Node {
    std::uint64_t hash;
    std::uint32_t type;
    std::uint32_t length;
    std::uint8_t *longKey;  // of keys that do not fit
    std::uint32_t uses;
    bool wasAskedFor;

    bool isInUse() const { return uses & 1; }
};

struct Table {
    std::uint32_t capacity;  // of nodes
    std::uint32_t used;
    std::uint32_t hand;
    std::uint32_t words;  // for results of one node, of each kind
    std::uint32_t lastIndex, indexes;
    std::uint32_t mask;    // of `buckets`
    std::size_t stride;    // from one node to the next
    std::uint8_t *memory;  // of the nodes, which begin with a line of their own
    std::uint8_t *nodes;
    std::uint32_t *buckets;  // open addressing: place + 1
};

platform::QuickMutex mutex;
Table table;

class Guard {
public:
    Guard() { mutex.lock(); }
    ~Guard() { mutex.unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    const kernel::KernelSection section_;
};

std::uint64_t mixed(std::uint64_t a, std::uint64_t b) {
    a = (a ^ b) * 0x9e3779b97f4a7c15u;
    return a ^ (a >> 32);
}

std::uint64_t hashOf(std::uint32_t type, const std::uint8_t *bytes, std::size_t length) {
    std::uint64_t hash = mixed(type, length), word;
    std::size_t i = 0;
    for (; i + 8 <= length; i += 8) {
        memcpy(&word, bytes + i, 8);
        hash = mixed(hash, word);
    }
    word = 0;
    if (length >= 8)
        memcpy(&word, bytes + length - 8, 8);
    else
        memcpy(&word, bytes, length);
    return mixed(mixed(hash, word), 0x632be59bd9b4e019u);
}

Node &nodeAt(std::uint32_t place) {
    return *reinterpret_cast<Node *>(table.nodes + place * table.stride);
}

// Words that say what is answered, then the answers.
std::uint64_t *resultsOf(Node &node) {
    return reinterpret_cast<std::uint64_t *>(&node + 1);
}
std::size_t resultBytes() {
    return 2 * table.words * sizeof(std::uint64_t);
}

std::size_t ownKeyBytes() {
    return table.stride - sizeof(Node) - resultBytes();
}
std::uint8_t *keyOf(Node &node) {
    return node.longKey ? node.longKey : reinterpret_cast<std::uint8_t *>(&node + 1) + resultBytes();
}

std::uint32_t nameOf(std::uint32_t place) {
    return (nodeAt(place).uses << placeBits) | (place + 1);
}

// The place that a name stands for, all ones when it is another's by now.
std::uint32_t placeOf(std::uint32_t name) {
    const std::uint32_t place = (name & ((1u << placeBits) - 1)) - 1;
    return place < table.capacity && nodeAt(place).isInUse() && nameOf(place) == name ? place : ~0u;
}

bool isKey(Node &node, std::uint64_t hash, std::uint32_t type, const void *bytes, std::size_t length) {
    return node.hash == hash && node.type == type && node.length == length && memcmp(keyOf(node), bytes, length) == 0;
}

// Takes a place's bucket away, and moves up those that were displaced over it.
void unlink(std::uint32_t place) {
    std::uint32_t hole = static_cast<std::uint32_t>(nodeAt(place).hash) & table.mask;
    while (table.buckets[hole] != place + 1) hole = (hole + 1) & table.mask;
    for (std::uint32_t next = (hole + 1) & table.mask; table.buckets[next] != 0; next = (next + 1) & table.mask) {
        const auto home = static_cast<std::uint32_t>(nodeAt(table.buckets[next] - 1).hash) & table.mask;
        if (((next - home) & table.mask) < ((next - hole) & table.mask)) continue;
        table.buckets[hole] = table.buckets[next];
        hole = next;
    }
    table.buckets[hole] = 0;
}

// A place for a new attribute: a fresh one, or that of an attribute that was not asked for lately.
std::uint32_t takePlace() {
    if (table.used < table.capacity) return table.used++;
    for (;;) {
        const std::uint32_t place = table.hand;
        table.hand = (table.hand + 1) % table.capacity;
        Node &node = nodeAt(place);
        if (node.isInUse() && node.wasAskedFor) {
            node.wasAskedFor = false;
            continue;
        }
        if (node.isInUse()) {
            unlink(place);
            if (node.longKey) zelMC_free(source, __LINE__, node.longKey);
            node.longKey = nullptr;
            ++node.uses;
        }
        return place;
    }
}

// Null without memory; the place is free then, and taken again when the hand comes by.
Node *fill(std::uint32_t place, std::uint64_t hash, std::uint32_t type, const void *bytes, std::size_t length) {
    Node &node = nodeAt(place);
    if (length > ownKeyBytes()) {
        node.longKey = static_cast<std::uint8_t *>(zelMC_malloc(source, __LINE__, length));
        if (!node.longKey) return nullptr;
    }
    node.hash = hash;
    node.type = type;
    node.length = static_cast<std::uint32_t>(length);
    ++node.uses;
    memcpy(keyOf(node), bytes, length);
    memset(resultsOf(node), 0, resultBytes());
    return &node;
}

void release() {
    for (std::uint32_t i = 0; i < table.used; ++i) zelMC_free(source, __LINE__, nodeAt(i).longKey);
    zelMC_free(source, __LINE__, table.memory);
    zelMC_free(source, __LINE__, table.buckets);
    table = {};
}

template <class T>
bool allocate(T *&array, std::size_t count) {
    array = static_cast<T *>(zelMC_calloc(source, __LINE__, count, sizeof(T)));
    return array != nullptr;
}

void forgetResults(std::uint32_t index) {
    const std::uint64_t bit = std::uint64_t{1} << (index % 64);
    for (std::uint32_t place = 0; place < table.used; ++place) resultsOf(nodeAt(place))[index / 64] &= ~bit;
}

}  // namespace

constinit ResultCache resultCache;

void ResultCache::disown() {
    epoch.fetch_add(1);
    for (auto &owner : owners) owner.store(0);
    for (std::uint32_t place = 0; place < table.used; ++place)
        memset(resultsOf(nodeAt(place)), 0, table.words * sizeof(std::uint64_t));
    table.lastIndex = 0;
}

bool ResultCache::create(std::uint32_t attributes, std::uint32_t expressions) {
    if (attributes == 0 || attributes > mostAttributes || expressions == 0 || expressions >= mostIndexes) return false;
    static bool isMade = false;  // others may ask a closed cache at any time
    if (!isMade) mutex.init("&regex_cache_lock");
    isMade = true;
    const Guard guard;
    table = {};
    table.capacity = attributes;
    table.indexes = expressions + 1;
    table.words = (table.indexes + 63) / 64;
    table.mask = std::bit_ceil(attributes * 2) - 1;
    table.stride = (sizeof(Node) + resultBytes() + leastKeyBytes + lineBytes - 1) / lineBytes * lineBytes;
    const bool isDone = allocate(table.memory, attributes * table.stride + lineBytes) &&
                        allocate(table.buckets, std::size_t{table.mask} + 1);
    if (!isDone) release();
    table.nodes = table.memory + (-reinterpret_cast<std::uintptr_t>(table.memory) & (lineBytes - 1));
    return isDone;
}

void ResultCache::destroy() {
    const Guard guard;
    disown();
    release();
}

std::uint32_t ResultCache::open(std::uint32_t type, const void *attribute, std::size_t length, Known &known) {
    const std::uint64_t hash = hashOf(type, static_cast<const std::uint8_t *>(attribute), length);
    const Guard guard;
    if (table.capacity == 0) return 0;
    std::uint32_t bucket = static_cast<std::uint32_t>(hash) & table.mask, place = ~0u;
    for (; table.buckets[bucket] != 0; bucket = (bucket + 1) & table.mask)
        if (isKey(nodeAt(table.buckets[bucket] - 1), hash, type, attribute, length)) {
            place = table.buckets[bucket] - 1;
            break;
        }
    const bool isNew = place == ~0u;
    if (isNew) {
        place = takePlace();
        if (!fill(place, hash, type, attribute, length)) return 0;
        for (bucket = static_cast<std::uint32_t>(hash) & table.mask; table.buckets[bucket] != 0;)
            bucket = (bucket + 1) & table.mask;
        table.buckets[bucket] = place + 1;
    }
    Node &node = nodeAt(place);
    node.wasAskedFor = !isNew;
    known.uses = node.uses;
    known.epoch = epoch.load();
    known.words = table.lastIndex / 64 + 1;
    const std::uint64_t *results = resultsOf(node);
    for (std::uint32_t i = 0; i < known.words; ++i) {
        known.answered[i] = results[i];
        known.answers[i] = results[table.words + i];
    }
    return nameOf(place);
}

bool ResultCache::learn(Known &known, std::uint32_t index, std::uint32_t expression, bool result) const {
    if (index == 0 || index / 64 >= known.words || expression == 0) return false;
    if (owners[index].load() != expression || epoch.load() != known.epoch) return false;
    const std::uint64_t bit = std::uint64_t{1} << (index % 64);
    std::uint64_t &answers = known.answers[index / 64];
    answers = result ? answers | bit : answers & ~bit;
    known.answered[index / 64] |= bit;
    return true;
}

void ResultCache::insertAll(std::uint32_t name, const Known &known) {
    const Guard guard;
    const std::uint32_t place = placeOf(name);
    if (place == ~0u || nodeAt(place).uses != known.uses || epoch.load() != known.epoch) return;
    std::uint64_t *results = resultsOf(nodeAt(place));
    for (std::uint32_t i = 0; i < known.words; ++i) {
        std::uint64_t &answers = results[table.words + i];
        answers = (answers & ~known.answered[i]) | (known.answers[i] & known.answered[i]);
        results[i] |= known.answered[i];
    }
}

bool ResultCache::find(std::uint32_t node, std::uint32_t index, bool &result) {
    const Guard guard;
    const std::uint32_t place = placeOf(node);
    if (place == ~0u || index == 0 || index > table.lastIndex) return false;
    const std::uint64_t *results = resultsOf(nodeAt(place)), bit = std::uint64_t{1} << (index % 64);
    result = (results[table.words + index / 64] & bit) != 0;
    return (results[index / 64] & bit) != 0;
}

bool ResultCache::insert(std::uint32_t node, std::uint32_t index, std::uint32_t expression, bool result,
                         const Known *opened) {
    const Guard guard;
    const std::uint32_t place = placeOf(node);
    if (place == ~0u || (opened && nodeAt(place).uses != opened->uses)) return false;
    if (index == 0 || index > table.lastIndex || expression == 0 || owners[index].load() != expression) return false;
    std::uint64_t *results = resultsOf(nodeAt(place));
    const std::uint64_t bit = std::uint64_t{1} << (index % 64);
    std::uint64_t &answer = results[table.words + index / 64];
    answer = result ? answer | bit : answer & ~bit;
    results[index / 64] |= bit;
    return true;
}

std::uint32_t ResultCache::indexOf(std::uint32_t expression, std::atomic<std::uint32_t> &kept) {
    const Guard guard;
    if (table.capacity == 0 || expression == 0) return 0;
    const std::uint32_t before = kept.load(std::memory_order_relaxed);
    if (before != 0 && before <= table.lastIndex && owners[before].load() == expression) return before;
    std::uint32_t index = 1;
    while (index <= table.lastIndex && owners[index].load() != 0) ++index;
    if (index == table.indexes) {  // expressions came and went: start anew
        disown();
        index = 1;
    }
    if (index > table.lastIndex) table.lastIndex = index;
    owners[index].store(expression);
    kept.store(index, std::memory_order_relaxed);
    return index;
}

void ResultCache::forget(std::uint32_t index, std::uint32_t expression) {
    const Guard guard;
    if (index == 0 || index > table.lastIndex || owners[index].load() != expression) return;
    epoch.fetch_add(1);
    owners[index].store(0);
    forgetResults(index);
}

std::uint32_t ResultCache::attributes() const {
    const Guard guard;
    std::uint32_t count = 0;
    for (std::uint32_t place = 0; place < table.used; ++place) count += nodeAt(place).isInUse() ? 1 : 0;
    return count;
}

}  // namespace zel::policy
