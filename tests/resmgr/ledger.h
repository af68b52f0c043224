// Who was given which index, over all processes of a test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>

namespace zel::test {

constexpr uint32_t switches = 2;

// An index belongs to one key at a time, whoever holds it.
struct Ledger {
    std::map<uint32_t, int32_t> held[switches];  // by key
    std::map<uint32_t, uint32_t> wanted[switches];

    void give(uint32_t of, uint32_t number, int32_t index) {
        ASSERT_NE(index, -1);
        for (const auto &side : held)
            for (const auto &[key, value] : side) {
                ASSERT_EQ(key == number, value == index) << "index " << value << " of " << key << ", now " << number;
            }
        held[of][number] = index;
    }
};

}  // namespace zel::test
