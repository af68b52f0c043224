// What a program would write for its own timing wheel, and for finding the next set bit of a ring of bits; behind
// functions of a shared library, as ours are.
#pragma once

#include <cstdint>
#include <vector>

struct SimpleTimer {
    SimpleTimer *previous = nullptr;
    SimpleTimer *next = nullptr;
};

// A ring of circular lists.
class SimpleWheel {
public:
    explicit SimpleWheel(uint32_t slots);
    void start(SimpleTimer &timer, uint32_t ticks);
    void stop(SimpleTimer &timer);

private:
    std::vector<SimpleTimer> slots_;
    uint32_t now_ = 0;
};

// The distance from `from` to the next set bit of 64 x `words` bits in a ring, plus 1; -1 when none is set.
int scanBits(const uint64_t *bits, uint32_t words, uint32_t from);
