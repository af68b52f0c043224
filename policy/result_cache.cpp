#include "policy/result_cache.h"

#include <atomic>
#include <bit>
#include <cstring>

#include "platform/quick_mutex.h"
#include "zel/platform.h"

namespace zel::policy {
namespace {

constexpr char source[] = "zelbgp_regex";
constexpr std::size_t ownKeyBytes = 64;
constexpr std::uint32_t placeBits = 20, mostAttributes = (1u << placeBits) - 2;

// A place of the table. `uses` counts how often it was taken; odd while it is in use.
struct Node {
    std::uint64_t hash;
    std::uint32_t type;
    std::uint32_t length;
    std::uint8_t *longKey;  // of keys that do not fit
    std::uint16_t uses;
    bool wasAskedFor;
    std::uint8_t key[ownKeyBytes];

    const std::uint8_t *bytes() const { return longKey ? longKey : key; }
    bool isInUse() const { return uses & 1; }
};

struct Table {
    std::uint32_t capacity;  // of nodes
    std::uint32_t used;
    std::uint32_t hand;
    std::uint32_t words;  // for results of one node, of each kind
    std::uint32_t lastIndex, indexes;
    std::uint32_t mask;  // of `buckets`
    Node *nodes;
    std::uint64_t *results;  // per node: words that say what is answered, then the answers
    std::uint32_t *buckets;  // open addressing: place + 1
};

platform::QuickMutex mutex;
Table table;

// By index: the number of the expression. Before an index goes to another one, `epoch` rises: what was known at an
// epoch that still is, is known of the same expressions.
std::atomic<std::uint32_t> owners[ResultCache::mostIndexes];
std::atomic<std::uint32_t> epoch{1};

class Guard {
public:
    Guard() { mutex.lock(); }
    ~Guard() { mutex.unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;
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
    memcpy(&word, bytes + i, length - i);
    return mixed(mixed(hash, word), 0x632be59bd9b4e019u);
}

std::uint64_t *resultsOf(std::uint32_t place) {
    return table.results + std::size_t{place} * 2 * table.words;
}

std::uint32_t nameOf(std::uint32_t place) {
    return (static_cast<std::uint32_t>(table.nodes[place].uses) << placeBits) | (place + 1);
}

// The place that a name stands for, all ones when it is another's by now.
std::uint32_t placeOf(std::uint32_t name) {
    const std::uint32_t place = (name & ((1u << placeBits) - 1)) - 1;
    return place < table.capacity && table.nodes[place].isInUse() && nameOf(place) == name ? place : ~0u;
}

bool isKey(const Node &node, std::uint64_t hash, std::uint32_t type, const void *bytes, std::size_t length) {
    return node.hash == hash && node.type == type && node.length == length && memcmp(node.bytes(), bytes, length) == 0;
}

// Takes a place's bucket away, and moves up those that were displaced over it.
void unlink(std::uint32_t place) {
    std::uint32_t hole = static_cast<std::uint32_t>(table.nodes[place].hash) & table.mask;
    while (table.buckets[hole] != place + 1) hole = (hole + 1) & table.mask;
    for (std::uint32_t next = (hole + 1) & table.mask; table.buckets[next] != 0; next = (next + 1) & table.mask) {
        const auto home = static_cast<std::uint32_t>(table.nodes[table.buckets[next] - 1].hash) & table.mask;
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
        Node &node = table.nodes[place];
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
    Node &node = table.nodes[place];
    if (length > ownKeyBytes) {
        node.longKey = static_cast<std::uint8_t *>(zelMC_malloc(source, __LINE__, length));
        if (!node.longKey) return nullptr;
    }
    node.hash = hash;
    node.type = type;
    node.length = static_cast<std::uint32_t>(length);
    ++node.uses;
    memcpy(node.longKey ? node.longKey : node.key, bytes, length);
    memset(resultsOf(place), 0, 2 * table.words * sizeof(std::uint64_t));
    return &node;
}

void release() {
    for (std::uint32_t i = 0; table.nodes && i < table.used; ++i)
        if (table.nodes[i].longKey) zelMC_free(source, __LINE__, table.nodes[i].longKey);
    zelMC_free(source, __LINE__, table.nodes);
    zelMC_free(source, __LINE__, table.results);
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
    for (std::uint32_t place = 0; place < table.used; ++place) resultsOf(place)[index / 64] &= ~bit;
}

void disown() {
    epoch.fetch_add(1);
    for (auto &owner : owners) owner.store(0);
    for (std::uint32_t place = 0; place < table.used; ++place)
        memset(resultsOf(place), 0, table.words * sizeof(std::uint64_t));
    table.lastIndex = 0;
}

}  // namespace

ResultCache resultCache;

bool ResultCache::create(std::uint32_t attributes, std::uint32_t expressions) {
    if (attributes == 0 || attributes > mostAttributes || expressions == 0 || expressions >= mostIndexes) return false;
    mutex.init("&regex_cache_lock");
    table = {};
    table.capacity = attributes;
    table.indexes = expressions + 1;
    table.words = (table.indexes + 63) / 64;
    table.mask = std::bit_ceil(attributes * 2) - 1;
    const bool isDone = allocate(table.nodes, attributes) && allocate(table.buckets, std::size_t{table.mask} + 1) &&
                        allocate(table.results, std::size_t{attributes} * 2 * table.words);
    if (!isDone) release();
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
        if (isKey(table.nodes[table.buckets[bucket] - 1], hash, type, attribute, length)) {
            place = table.buckets[bucket] - 1;
            break;
        }
    known.words = 0;
    known.epoch = epoch.load();
    if (place != ~0u) {
        table.nodes[place].wasAskedFor = true;
        known.words = table.lastIndex / 64 + 1;
        const std::uint64_t *results = resultsOf(place);
        memcpy(known.answered, results, known.words * sizeof *results);
        memcpy(known.answers, results + table.words, known.words * sizeof *results);
        return nameOf(place);
    }
    place = takePlace();
    if (!fill(place, hash, type, attribute, length)) return 0;
    for (bucket = static_cast<std::uint32_t>(hash) & table.mask; table.buckets[bucket] != 0;)
        bucket = (bucket + 1) & table.mask;
    table.buckets[bucket] = place + 1;
    return nameOf(place);
}

bool ResultCache::find(std::uint32_t node, std::uint32_t index, bool &result) {
    const Guard guard;
    const std::uint32_t place = placeOf(node);
    if (place == ~0u || index == 0 || index > table.lastIndex) return false;
    const std::uint64_t *results = resultsOf(place), bit = std::uint64_t{1} << (index % 64);
    result = (results[table.words + index / 64] & bit) != 0;
    return (results[index / 64] & bit) != 0;
}

bool ResultCache::insert(std::uint32_t node, std::uint32_t index, std::uint32_t expression, bool result) {
    const Guard guard;
    const std::uint32_t place = placeOf(node);
    if (place == ~0u || index == 0 || index > table.lastIndex || owners[index].load() != expression) return false;
    std::uint64_t *results = resultsOf(place);
    const std::uint64_t bit = std::uint64_t{1} << (index % 64);
    std::uint64_t &answer = results[table.words + index / 64];
    answer = result ? answer | bit : answer & ~bit;
    results[index / 64] |= bit;
    return true;
}

std::uint32_t ResultCache::indexOf(std::uint32_t expression, std::uint32_t before) {
    const Guard guard;
    if (table.capacity == 0) return 0;
    if (before != 0 && before <= table.lastIndex && owners[before].load() == expression) return before;
    std::uint32_t index = 1;
    while (index <= table.lastIndex && owners[index].load() != 0) ++index;
    if (index == table.indexes) {  // expressions came and went: start anew
        disown();
        index = 1;
    }
    if (index > table.lastIndex) table.lastIndex = index;
    owners[index].store(expression);
    return index;
}

bool ResultCache::isKnown(const Known &known, std::uint32_t index, std::uint32_t expression, bool &result) const {
    if (index / 64 >= known.words || owners[index].load() != expression || epoch.load() != known.epoch) return false;
    const std::uint64_t bit = std::uint64_t{1} << (index % 64);
    result = (known.answers[index / 64] & bit) != 0;
    return (known.answered[index / 64] & bit) != 0;
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
    for (std::uint32_t place = 0; place < table.used; ++place) count += table.nodes[place].isInUse() ? 1 : 0;
    return count;
}

}  // namespace zel::policy
