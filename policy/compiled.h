// Expressions as this process compiled them.
//
// A process compiles an expression when it first matches with it, and finds it again by the record's slot. A slot is
// used again when its expression is gone; the number, which is not, tells the two apart. Then the old matcher goes.
//
// Whoever keeps to the lock of the tables cannot be matching with it any more; but two records that somebody wrote into
// the segment may name one slot at the same time. So a thread marks what it matches with, and what is marked stays
// until the next time that something goes.
#pragma once

#include <cstddef>
#include <cstdint>

struct zelRegex;

namespace zel::policy {

struct Compiled;

// One expression, compiled if need be, in use by this thread to the end of the scope. A thread has one at a time.
class CompiledUse {
public:
    explicit CompiledUse(const zelRegex &expression);
    ~CompiledUse();
    CompiledUse(const CompiledUse &) = delete;
    CompiledUse &operator=(const CompiledUse &) = delete;

    // Whether there is a matcher: the pattern compiles, and there was memory.
    explicit operator bool() const;
    // False without one.
    bool matches(const char *text, std::size_t length) const;

private:
    const Compiled *entry_;
};

}  // namespace zel::policy
