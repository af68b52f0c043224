// A pattern as the C library compiles it: for those that have no automaton.
#pragma once

#include <cstddef>

namespace zel::policy {

class HostExpression {
public:
    // Null when it does not compile; `error` then says why. destroy takes null too.
    static HostExpression *compile(const char *expanded, char *error, std::size_t errorBytes);
    static void destroy(HostExpression *expression);

    // Whether the C library takes the pattern; why not, in `error`.
    static bool compiles(const char *expanded, char *error, std::size_t errorBytes);

    // Any number of threads at once, none of which waits for another. Allocates. Without memory, nothing matches.
    bool matches(const char *text, std::size_t length);

private:
    struct Copy;
    static constexpr unsigned copyCount = 16;

    Copy *copies_;
    char *text_;
};

}  // namespace zel::policy
