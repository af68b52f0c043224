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
constexpr std::size_t lineBytes = 64, wordBytes = sizeof(std::uint64_t), leastKeyWords = 5;
constexpr std::uint32_t placeBits = 20, mostAttributes = (1u << placeBits) - 2, nowhere = ~0u;
constexpr std::size_t longestAttribute = 1u << 24;

// Words of a node are written under the lock and read without it. As each is stored with release and loaded with
// acquire, a reader that gets one of the node's next use sees its new count too.
using Word = std::atomic<std::uint64_t>;

std::uint64_t get(const Word &word) {
    return word.load(std::memory_order_acquire);
}
void put(Word &word, std::uint64_t value) {
    word.store(value, std::memory_order_release);
}

// A place of the table, which begins a line of memory. Behind it stand its results, then its key. `uses` counts how
// often it was taken and given up; odd while it is in use.
struct Node {
    std::atomic<std::uint32_t> uses;
    std::atomic<std::uint32_t> hash;
    std::atomic<bool> wasAskedFor;
    std::uint8_t *longKey;  // the bytes of an attribute that does not fit

    bool isInUse() const { return uses.load(std::memory_order_relaxed) & 1; }
    void countUse() { uses.store(uses.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
};

struct Table {
    std::uint32_t capacity;  // of nodes
    std::uint32_t used;
    std::uint32_t hand;
    std::uint32_t words;  // for results of one node, of each kind
    std::uint32_t indexes;
    std::uint32_t mask;                   // of `buckets`
    std::size_t keyWords;                 // that fit into a node
    std::size_t stride;                   // from one node to the next
    std::uint8_t *memory;                 // of the nodes, which begin with a line of their own
    std::uint8_t *nodes;                  //
    std::atomic<std::uint32_t> *buckets;  // open addressing: place + 1
};

platform::QuickMutex mutex;
Table table;
std::atomic<bool> isOpen{false};  // for readers: the table is there, and its sizes stay
std::atomic<std::uint32_t> lastIndex{0};

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

// ---- Attributes -----------------------------------------------------------------------------------------------------

// An attribute as words: its type and length, its whole words, and its last eight bytes, or all when it has no more.
class Key {
public:
    Key(std::uint32_t type, const void *attribute, std::size_t length)
        : bytes_(static_cast<const std::uint8_t *>(attribute)),
          length_(length),
          head_(std::uint64_t{type} << 32 ^ length) {
        if (length >= wordBytes) last_ = wordAt(length - wordBytes);
        for (std::size_t i = 0; length < wordBytes && i < length; ++i) last_ = last_ << 8 | bytes_[i];
        std::uint64_t hash = mixed(0, last_);
        for (std::size_t i = 0; i + wordBytes <= length; i += wordBytes) hash = mixed(hash, wordAt(i));
        hash_ = static_cast<std::uint32_t>(mixed(hash, head_));
    }
    std::uint32_t hash() const { return hash_; }
    const std::uint8_t *bytes() const { return bytes_; }
    std::size_t length() const { return length_; }
    // Of a long one there is only the head in the node.
    bool isLong() const { return length_ / wordBytes + 2 > table.keyWords; }

    void write(Word *at) const {
        put(*at++, head_);
        if (isLong()) return;
        for (std::size_t i = 0; i + wordBytes <= length_; i += wordBytes) put(*at++, wordAt(i));
        put(*at, last_);
    }
    bool isAt(const Word *at) const {
        bool isSame = get(*at++) == head_;
        for (std::size_t i = 0; isSame && i + wordBytes <= length_; i += wordBytes) isSame = get(*at++) == wordAt(i);
        return isSame && get(*at) == last_;
    }
    bool isLongAt(const Word *at, const std::uint8_t *bytes) const {
        return get(*at) == head_ && memcmp(bytes, bytes_, length_) == 0;
    }

private:
    std::uint64_t wordAt(std::size_t offset) const {
        std::uint64_t word;
        memcpy(&word, bytes_ + offset, wordBytes);
        return word;
    }

    const std::uint8_t *bytes_;
    std::size_t length_;
    std::uint64_t head_, last_ = 0;
    std::uint32_t hash_;
};

// ---- Nodes ----------------------------------------------------------------------------------------------------------

Node &nodeAt(std::uint32_t place) {
    return *reinterpret_cast<Node *>(table.nodes + place * table.stride);
}

// Words that say what is answered, then the answers.
Word *resultsOf(Node &node) {
    return reinterpret_cast<Word *>(&node + 1);
}
Word *keyOf(Node &node) {
    return resultsOf(node) + 2 * table.words;
}

std::uint32_t nameOf(std::uint32_t place, std::uint32_t uses) {
    return uses << placeBits | (place + 1);
}

// The place that a name stands for, unless it is another's by now.
std::uint32_t placeOf(std::uint32_t name) {
    const std::uint32_t place = (name & ((1u << placeBits) - 1)) - 1;
    const bool isThere = place < table.capacity && nodeAt(place).isInUse();
    return isThere && nameOf(place, nodeAt(place).uses.load()) == name ? place : nowhere;
}

bool isKey(Node &node, const Key &key) {
    if (node.hash.load(std::memory_order_relaxed) != key.hash()) return false;
    return key.isLong() ? key.isLongAt(keyOf(node), node.longKey) : key.isAt(keyOf(node));
}

// What is known of a node, if it is that of the attribute from the first look at its uses to the last.
bool read(Node &node, const Key &key, ResultCache::Known &known) {
    known.uses = node.uses.load(std::memory_order_acquire);
    if (!(known.uses & 1) || !isKey(node, key)) return false;
    const Word *results = resultsOf(node);
    for (std::uint32_t i = 0; i < known.words; ++i) {
        known.answered[i] = get(results[i]);
        known.answers[i] = get(results[table.words + i]);
    }
    return node.uses.load(std::memory_order_relaxed) == known.uses;
}

// The name of the attribute's node, and what is known of it; 0 when there is none, or not the whole time.
std::uint32_t lookFor(const Key &key, ResultCache::Known &known) {
    known.epoch = resultCache.epoch.load();
    known.words = (lastIndex.load(std::memory_order_acquire) + 63) / 64;
    for (std::uint32_t bucket = key.hash();; ++bucket) {
        const std::uint32_t entry = table.buckets[bucket & table.mask].load(std::memory_order_acquire);
        if (entry == 0) return 0;
        Node &node = nodeAt(entry - 1);
        if (!read(node, key, known)) continue;
        if (!node.wasAskedFor.load(std::memory_order_relaxed)) node.wasAskedFor.store(true, std::memory_order_relaxed);
        return nameOf(entry - 1, known.uses);
    }
}

void link(std::uint32_t place) {
    std::uint32_t bucket = nodeAt(place).hash.load() & table.mask;
    while (table.buckets[bucket].load() != 0) bucket = (bucket + 1) & table.mask;
    table.buckets[bucket].store(place + 1, std::memory_order_release);
}

// Takes a place's bucket away, and moves up those that were displaced over it.
void unlink(std::uint32_t place) {
    std::uint32_t hole = nodeAt(place).hash.load() & table.mask;
    while (table.buckets[hole].load() != place + 1) hole = (hole + 1) & table.mask;
    for (std::uint32_t next = (hole + 1) & table.mask; table.buckets[next].load() != 0;
         next = (next + 1) & table.mask) {
        const std::uint32_t moved = table.buckets[next].load(), home = nodeAt(moved - 1).hash.load() & table.mask;
        if (((next - home) & table.mask) < ((next - hole) & table.mask)) continue;
        table.buckets[hole].store(moved, std::memory_order_release);
        hole = next;
    }
    table.buckets[hole].store(0, std::memory_order_release);
}

// A place for a new attribute: a fresh one, or that of an attribute that was not asked for lately.
std::uint32_t takePlace() {
    if (table.used < table.capacity) return table.used++;
    for (;;) {
        const std::uint32_t place = table.hand;
        table.hand = (table.hand + 1) % table.capacity;
        Node &node = nodeAt(place);
        if (!node.isInUse()) return place;
        if (node.wasAskedFor.exchange(false)) continue;
        unlink(place);
        node.countUse();
        zelMC_free(source, __LINE__, node.longKey);
        node.longKey = nullptr;
        return place;
    }
}

// False without memory; the place is free then, and taken again when the hand comes by.
bool fill(Node &node, const Key &key) {
    if (key.isLong()) {
        node.longKey = static_cast<std::uint8_t *>(zelMC_malloc(source, __LINE__, key.length()));
        if (!node.longKey) return false;
        memcpy(node.longKey, key.bytes(), key.length());
    }
    node.hash.store(key.hash(), std::memory_order_relaxed);
    node.wasAskedFor.store(false, std::memory_order_relaxed);
    for (std::uint32_t i = 0; i < 2 * table.words; ++i) put(resultsOf(node)[i], 0);
    key.write(keyOf(node));
    node.countUse();
    return true;
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

// Takes bits out of a word of every node's results.
void forgetResults(std::uint32_t word, std::uint64_t bits) {
    for (std::uint32_t place = 0; place < table.used; ++place) {
        Word &answered = resultsOf(nodeAt(place))[word];
        put(answered, get(answered) & ~bits);
    }
}

// Adds the answers to the bits that say which they are.
void addResults(Node &node, std::uint32_t word, std::uint64_t bits, std::uint64_t values) {
    Word &answered = resultsOf(node)[word], &answers = resultsOf(node)[table.words + word];
    put(answers, (get(answers) & ~bits) | (values & bits));
    put(answered, get(answered) | bits);
}

}  // namespace

constinit ResultCache resultCache;

void ResultCache::disown() {
    epoch.fetch_add(1);
    for (auto &owner : owners) owner.store(0);
    for (std::uint32_t word = 0; word < table.words; ++word) forgetResults(word, ~std::uint64_t{0});
    lastIndex.store(0);
    epoch.fetch_add(1);
}

bool ResultCache::create(std::uint32_t attributes, std::uint32_t expressions) {
    if (attributes == 0 || attributes > mostAttributes || expressions == 0 || expressions >= mostIndexes) return false;
    static bool isMade = false;  // others may ask a closed cache at any time
    if (!isMade) mutex.init("&regex_cache_lock");
    isMade = true;
    const Guard guard;
    table = {};
    table.capacity = attributes;
    table.indexes = expressions;
    table.words = wordOf(expressions) + 1;
    table.mask = std::bit_ceil(attributes * 2) - 1;
    const std::size_t fixed = sizeof(Node) + 2 * table.words * wordBytes;
    table.stride = (fixed + leastKeyWords * wordBytes + lineBytes - 1) / lineBytes * lineBytes;
    table.keyWords = (table.stride - fixed) / wordBytes;
    const bool isDone = allocate(table.memory, attributes * table.stride + lineBytes) &&
                        allocate(table.buckets, std::size_t{table.mask} + 1);
    if (!isDone) release();
    table.nodes = table.memory + (-reinterpret_cast<std::uintptr_t>(table.memory) & (lineBytes - 1));
    isOpen.store(isDone, std::memory_order_release);
    return isDone;
}

void ResultCache::destroy() {
    const Guard guard;
    isOpen.store(false);
    disown();
    release();
}

std::uint32_t ResultCache::open(std::uint32_t type, const void *attribute, std::size_t length, Known &known) {
    if (isOpen.load(std::memory_order_acquire)) {
        const Key key(type, attribute, length);
        if (!key.isLong())
            if (const std::uint32_t name = lookFor(key, known)) return name;
    }
    return openLocked(type, attribute, length, known);
}

std::uint32_t ResultCache::openLocked(std::uint32_t type, const void *attribute, std::size_t length, Known &known) {
    const Guard guard;
    if (table.capacity == 0 || length > longestAttribute) return 0;
    const Key key(type, attribute, length);
    if (const std::uint32_t name = lookFor(key, known)) return name;
    const std::uint32_t place = takePlace();
    Node &node = nodeAt(place);
    if (!fill(node, key)) return 0;
    link(place);
    read(node, key, known);
    return nameOf(place, known.uses);
}

bool ResultCache::learn(Known &known, std::uint32_t index, std::uint32_t expression, bool result) const {
    const std::uint32_t word = wordOf(index);
    if (word >= known.words || expression == 0) return false;
    if (owners[index].load() != expression || epoch.load() != known.epoch) return false;
    std::uint64_t &answers = known.answers[word];
    answers = result ? answers | bitOf(index) : answers & ~bitOf(index);
    known.answered[word] |= bitOf(index);
    return true;
}

void ResultCache::insertAll(std::uint32_t name, const Known &known) {
    const Guard guard;
    const std::uint32_t place = placeOf(name);
    if (place == nowhere || nodeAt(place).uses.load() != known.uses || epoch.load() != known.epoch) return;
    for (std::uint32_t i = 0; i < known.words; ++i) addResults(nodeAt(place), i, known.answered[i], known.answers[i]);
}

bool ResultCache::find(std::uint32_t name, std::uint32_t index, bool &result) {
    const Guard guard;
    const std::uint32_t place = placeOf(name);
    if (place == nowhere || index == 0 || index > lastIndex.load()) return false;
    const Word *results = resultsOf(nodeAt(place));
    result = (get(results[table.words + wordOf(index)]) & bitOf(index)) != 0;
    return (get(results[wordOf(index)]) & bitOf(index)) != 0;
}

bool ResultCache::insert(std::uint32_t name, std::uint32_t index, std::uint32_t expression, bool result,
                         const Known *opened) {
    const Guard guard;
    const std::uint32_t place = placeOf(name);
    if (place == nowhere || (opened && nodeAt(place).uses.load() != opened->uses)) return false;
    if (index == 0 || index > lastIndex.load() || expression == 0 || owners[index].load() != expression) return false;
    addResults(nodeAt(place), wordOf(index), bitOf(index), result ? bitOf(index) : 0);
    return true;
}

std::uint32_t ResultCache::indexOf(std::uint32_t expression, std::atomic<std::uint32_t> &kept) {
    const Guard guard;
    if (table.capacity == 0 || expression == 0) return 0;
    const std::uint32_t before = kept.load(std::memory_order_relaxed), last = lastIndex.load();
    if (before != 0 && before <= last && owners[before].load() == expression) return before;
    std::uint32_t index = 1;
    while (index <= last && owners[index].load() != 0) ++index;
    if (index > table.indexes) {  // expressions came and went: start anew
        disown();
        index = 1;
    }
    if (index > lastIndex.load()) lastIndex.store(index);
    owners[index].store(expression);
    kept.store(index, std::memory_order_relaxed);
    return index;
}

void ResultCache::forget(std::uint32_t index, std::uint32_t expression) {
    const Guard guard;
    if (index == 0 || index > lastIndex.load() || owners[index].load() != expression) return;
    epoch.fetch_add(1);
    owners[index].store(0);
    forgetResults(wordOf(index), bitOf(index));
    epoch.fetch_add(1);
}

std::uint32_t ResultCache::attributes() const {
    const Guard guard;
    std::uint32_t count = 0;
    for (std::uint32_t place = 0; place < table.used; ++place) count += nodeAt(place).isInUse() ? 1 : 0;
    return count;
}

}  // namespace zel::policy
