// What this process knows of attributes and expressions: for each attribute which expressions were matched with it, and
// with what result.
//
// Expressions are known by indexes of this process, from 1 on, each with the number of its expression, so that an index
// that comes from elsewhere is found out. An attribute is a node in a table of fixed size; one that nobody asked for
// since the hand of a clock passed it makes room for a new one. A node is named by its place and a count of its uses
// before, so that an old name finds nothing; the count has room for no more than some thousand in a name, so a thread
// that may have slept since it got one shows the whole count.
//
// An attribute that is known is read without a lock, between two looks at its node's count of uses; so whoever opens
// attributes holds the read lock of the tables, while the cache is destroyed under its write lock. Everything else
// serialises on one lock that is held for some ten nanoseconds. None is a cancellation point.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zel::policy {

class ResultCache {
public:
    static constexpr std::uint32_t mostIndexes = 1024;
    static constexpr std::uint32_t mostWords = mostIndexes / 64;

    // Where the results of an index stand; index 0, which no expression has, is beyond all words.
    static constexpr std::uint32_t wordOf(std::uint32_t index) { return (index - 1) / 64; }
    static constexpr std::uint64_t bitOf(std::uint32_t index) { return std::uint64_t{1} << ((index - 1) % 64); }

    // Room for that many attributes and expressions; false without memory.
    bool create(std::uint32_t attributes, std::uint32_t expressions);
    void destroy();

    // What is known of an attribute, as of one moment.
    struct Known {
        std::uint32_t words = 0;
        std::uint32_t epoch = 0;
        std::uint32_t uses = 0;  // of the node
        std::uint64_t answered[mostWords], answers[mostWords];
    };

    // The attribute's node, made when there is none, and what is known. 0 without memory, or for 16 MiB.
    std::uint32_t open(std::uint32_t type, const void *attribute, std::size_t length, Known &known);
    // The same for callers without the read lock.
    std::uint32_t openLocked(std::uint32_t type, const void *attribute, std::size_t length, Known &known);
    // Whether that tells the result of the expression whose index this seems to be.
    bool isKnown(const Known &known, std::uint32_t index, std::uint32_t expression, bool &result) const {
        const std::uint32_t word = wordOf(index);
        if (word >= known.words || owners[index].load() != expression || epoch.load() != known.epoch) return false;
        result = (known.answers[word] & bitOf(index)) != 0;
        return (known.answered[word] & bitOf(index)) != 0;
    }
    // Adds a result to what is known; false when the index is not, or no more, the expression's.
    bool learn(Known &known, std::uint32_t index, std::uint32_t expression, bool result) const;
    // Keeps what was added, unless the node or an index is another's by now.
    void insertAll(std::uint32_t node, const Known &known);
    bool find(std::uint32_t node, std::uint32_t index, bool &result);
    // `opened`: what open() said, if the caller is who called it.
    bool insert(std::uint32_t node, std::uint32_t index, std::uint32_t expression, bool result,
                const Known *opened = nullptr);

    // The index of an expression, which stands in `index` or is put there.
    std::uint32_t indexOf(std::uint32_t expression, std::atomic<std::uint32_t> &index);
    // Forgets all results of an expression, whose index may then belong to another one.
    void forget(std::uint32_t index, std::uint32_t expression);

    std::uint32_t attributes() const;

    // By index: the number of the expression. Before results of an index are forgotten, and again before the index can
    // go to another expression, `epoch` rises: what was read at an epoch that still is, is known of the same
    // expressions.
    std::atomic<std::uint32_t> owners[mostIndexes + 1]{};
    std::atomic<std::uint32_t> epoch{1};

private:
    void disown();
};

// The one of this process.
extern ResultCache resultCache;

}  // namespace zel::policy
