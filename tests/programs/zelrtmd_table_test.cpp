// The manager's table when memory is short, and what of it goes back.
#include <gtest/gtest.h>

#include <cstring>

#include "programs/zelrtmd/table.h"
#include "zel/memory.h"

namespace {

using zelrtmd::Change;

int mayGrow = 1;

zelMemPartStats memory() {
    zelMemPartStats stats{};
    M_memPartGetStats(ZEL_RTM_SERVICE, &stats);
    return stats;
}

// A route for the nth host, in records of six lengths.
Change add(zelrtmd::Table &table, std::uint32_t n) {
    static const std::uint8_t record[280] = {};
    zelRtmRoute route{};
    std::memset(route.mask, 0xff, 4);
    std::memcpy(route.prefix, &n, sizeof n);
    return table.add(1, route, record, 80 + n % 6 * 40);
}

}  // namespace

int zelMemUsageCheck(zelTaskId, uint32_t, uint32_t) {
    return mayGrow;
}

TEST(ZelrtmdTable, RefusesWhatItHasNoMemoryForAndGivesBackWhatIsGone) {
    zelrtmd::Table table(ZEL_RTM_IPV4_UNICAST, 0);
    for (std::uint32_t n = 0; n < 6; ++n) ASSERT_EQ(add(table, n), Change::added);
    mayGrow = 0;  // a page of each kind there is: the prefixes run out first
    std::uint32_t n = 6;
    while (n < 1000 && add(table, n) == Change::added) ++n;
    EXPECT_EQ(add(table, n), Change::refused);
    EXPECT_EQ(memory().pages, 7);
    EXPECT_EQ(memory().chunksInUse, 2 * n + 1);
    EXPECT_EQ(table.prefixes(), n);
    EXPECT_EQ(table.exactMatch(&n, 32), nullptr);
    EXPECT_EQ(add(table, 1), Change::replaced);
    mayGrow = 1;
    EXPECT_EQ(add(table, n), Change::added);
    EXPECT_NE(table.exactMatch(&n, 32), nullptr);
    table.removeOf(0);
    EXPECT_EQ(memory().pages, 1);
    EXPECT_EQ(memory().chunksInUse, 1);
}
