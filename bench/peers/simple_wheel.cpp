#include "simple_wheel.h"

#include <bit>

SimpleWheel::SimpleWheel(uint32_t slots) : slots_(slots) {
    for (SimpleTimer &head : slots_) head.previous = head.next = &head;
}

void SimpleWheel::start(SimpleTimer &timer, uint32_t ticks) {
    SimpleTimer &head = slots_[(now_ + ticks) & (slots_.size() - 1)];
    timer.next = &head;
    timer.previous = head.previous;
    head.previous->next = &timer;
    head.previous = &timer;
}

void SimpleWheel::stop(SimpleTimer &timer) {
    timer.previous->next = timer.next;
    timer.next->previous = timer.previous;
}

int scanBits(const uint64_t *bits, uint32_t words, uint32_t from) {
    const uint32_t size = words * 64;
    uint64_t found = bits[from / 64] & ~uint64_t{0} << from % 64;
    for (uint32_t i = 0; i <= words; ++i) {
        const uint32_t word = (from / 64 + i) & (words - 1);
        if (i > 0) found = bits[word];
        if (found != 0)
            return static_cast<int>((word * 64 + static_cast<uint32_t>(std::countr_zero(found)) - from) & (size - 1)) +
                   1;
    }
    return -1;
}
