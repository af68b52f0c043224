// What this process knows of attributes and expressions: for each attribute which expressions were matched with it, and
// with what result.
//
// Expressions are known by indexes of this process, from 1 on, each with the number of its expression, so that an index
// that comes from elsewhere is found out. An attribute is a node in a table of fixed size; one that nobody asked for
// since the hand of a clock passed it makes room for a new one. A node is named by its place and a count of its uses
// before, so that an old name finds nothing.
//
// All calls serialise on one lock that is held for some ten nanoseconds; none is a cancellation point.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::policy {

class ResultCache {
public:
    static constexpr std::uint32_t mostIndexes = 1024;
    static constexpr std::uint32_t mostWords = mostIndexes / 64;

    // Room for that many attributes and expressions; false without memory.
    bool create(std::uint32_t attributes, std::uint32_t expressions);
    void destroy();

    // What is known of an attribute, as of one moment.
    struct Known {
        std::uint32_t words = 0;
        std::uint32_t epoch = 0;
        std::uint64_t answered[mostWords], answers[mostWords];
    };

    // The attribute's node, made when there is none, and what is known. 0 without memory.
    std::uint32_t open(std::uint32_t type, const void *attribute, std::size_t length, Known &known);
    // Whether that tells the result of the expression whose index this seems to be.
    bool isKnown(const Known &known, std::uint32_t index, std::uint32_t expression, bool &result) const;
    bool find(std::uint32_t node, std::uint32_t index, bool &result);
    bool insert(std::uint32_t node, std::uint32_t index, std::uint32_t expression, bool result);

    // The index of an expression, given the one it may have already.
    std::uint32_t indexOf(std::uint32_t expression, std::uint32_t before);
    // Forgets all results of an expression, whose index may then belong to another one.
    void forget(std::uint32_t index, std::uint32_t expression);

    std::uint32_t attributes() const;
};

// The one of this process.
extern ResultCache resultCache;

}  // namespace zel::policy
