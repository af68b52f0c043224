// What a pattern says, as a tree: POSIX extended expressions over bytes, in the dialect of the C library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::policy {

struct ByteSet {
    std::uint64_t words[4];

    bool has(unsigned byte) const { return words[byte / 64] >> byte % 64 & 1; }
    void add(unsigned byte) { words[byte / 64] |= std::uint64_t{1} << byte % 64; }
    void add(unsigned first, unsigned last) {
        for (unsigned byte = first; byte <= last; ++byte) add(byte);
    }
    void negate() {
        for (auto &word : words) word = ~word;
    }
    bool operator==(const ByteSet &) const = default;
};

enum class Kind : std::uint8_t { nothing, bytes, begin, end, sequence, choice, repeat };

// Children hang from the last to the first, as they are compiled. 0 is no node.
struct Node {
    Kind kind;
    std::uint16_t symbol;       // bytes: the byte itself, or 256 + the number of a set
    std::uint16_t last;         // sequence, choice: the last child; repeat: the only one
    std::uint16_t previous;     // the child before this one
    std::uint16_t least, most;  // repeat
};

constexpr std::uint16_t unbounded = UINT16_MAX;
constexpr unsigned firstSet = 256;

class PatternTree {
public:
    // The tree of a pattern as written; null, and why in `error`, when checkPattern refuses it or without memory.
    // destroy takes null too.
    static PatternTree *read(const char *pattern, char *error, std::size_t errorBytes);
    static void destroy(PatternTree *tree);

    // The pattern with its underscores replaced.
    const char *text() const { return text_; }
    // Whether the tree says all of the pattern. It does not when the pattern is no expression, refers back, or has one
    // of the C library's own escapes and symbols: then there is only the C library to ask.
    bool isComplete() const { return !isForeign_; }

    std::uint16_t root() const { return root_; }
    const Node &node(std::uint16_t number) const { return nodes_[number]; }
    bool contains(unsigned symbol, unsigned byte) const {
        return symbol < firstSet ? symbol == byte : sets_[symbol - firstSet].has(byte);
    }

private:
    friend class PatternParser;
    static constexpr unsigned maxSets = 128;

    char *text_;
    const char *refusal_;
    bool isForeign_;
    std::uint16_t root_;
    std::uint16_t nodeCount_;
    std::uint16_t setCount_;
    ByteSet sets_[maxSets];
    Node nodes_[];
};

}  // namespace zel::policy
