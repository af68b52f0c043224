// A compiled pattern: whether a text, an AS path or a list of communities, matches it.
//
//     char why[64];
//     Matcher *matcher = Matcher::compile("^65000_", why, sizeof why);      // null: `why` says why not
//     if (matcher->matches(path, strlen(path))) ...
//     Matcher::destroy(matcher);
//
// Verdicts are those of the C library's extended expressions in the C locale, on the pattern with its underscores
// replaced; nearly all patterns reach them by an automaton of their own, the others by asking the C library.
#pragma once

#include <cstddef>

#include "policy/automaton.h"
#include "policy/host_expression.h"

namespace zel::policy {

class Matcher {
public:
    // Of a pattern as written. Null, and why in `error`, when it is refused, does not compile, or without memory.
    static Matcher *compile(const char *pattern, char *error, std::size_t errorBytes);
    // Nobody may be matching with it. Takes null too.
    static void destroy(Matcher *matcher);

    // Whether the pattern matches anywhere in the text. Any number of threads at once; never waits, is no cancellation
    // point, and allocates nothing if hasAutomaton().
    bool matches(const char *text, std::size_t length) const {
        return automaton_ ? automaton_->matches(text, length) : host_->matches(text, length);
    }
    bool hasAutomaton() const { return automaton_ != nullptr; }

private:
    Automaton *automaton_;
    HostExpression *host_;
};

}  // namespace zel::policy
