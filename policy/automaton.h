// Whether a text holds a match of a pattern, by one table look-up for each byte.
//
// The automaton is built whole, once, and never changes: any number of threads match with it at once, and matching
// allocates nothing and waits for nothing. Not every pattern has one (see build).
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::policy {

class PatternTree;

class Automaton {
public:
    // Null when the tree is not complete, when the automaton would be too large, or without memory.
    static Automaton *build(const PatternTree &tree);
    static void destroy(Automaton *automaton);

    // Whether the pattern matches anywhere in the text, which may hold any bytes.
    bool matches(const char *text, std::size_t length) const {
        unsigned state = start_;
        if (isSettled(state)) return state != 0;
        const char *const end = text + length;
        while (end - text >= 4) {
            state = after(after(after(after(state, text[0]), text[1]), text[2]), text[3]);
            text += 4;
            if (isSettled(state)) return state != 0;
        }
        while (text != end) state = after(state, *text++);
        return state >= firstMatching_;
    }

    std::size_t bytes() const;

private:
    friend class AutomatonBuilder;

    // States are named by where their row begins. The first row is the state that no text leads out of and that never
    // matches, the last one that which always matches; the rows in front of that match if the text ends there.
    bool isSettled(unsigned state) const { return state - 1 >= unsigned{matched_} - 1; }
    unsigned after(unsigned state, char byte) const {
        return rows_[state + classOf_[static_cast<unsigned char>(byte)]];
    }

    std::uint16_t start_;
    std::uint16_t firstMatching_;
    std::uint16_t matched_;
    std::uint16_t classes_;
    std::uint8_t classOf_[256];  // bytes that no symbol of the pattern tells apart share a class
    std::uint16_t rows_[];
};

}  // namespace zel::policy
