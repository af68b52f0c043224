// Byte rings: against a model, at their edges, and as a stream between two threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <thread>
#include <vector>

#include "tests/support/random.h"
#include "zel/kernel.h"

using namespace zel::test;

namespace {

void expectHolds(zelRingId ring, int size, int bytes) {
    EXPECT_EQ(rngNBytes(ring), bytes);
    EXPECT_EQ(rngFreeBytes(ring), size - bytes);
    EXPECT_EQ(rngIsEmpty(ring) != 0, bytes == 0);
    EXPECT_EQ(rngIsFull(ring) != 0, bytes == size);
}

// Random puts, gets and flushes; some puts go ahead byte by byte, from the last to the first.
TEST(Ring, AgreesWithAModel) {
    Random random = seeded();
    for (int size = 0; size < 40; ++size) {
        const zelRingId ring = rngCreate(size);
        std::deque<char> model;
        for (int i = 0; i < 2000; ++i) {
            std::vector<char> bytes(random() % 50);
            const int asked = static_cast<int>(bytes.size()), held = static_cast<int>(model.size());
            if (random() % 2 == 0) {
                for (char &byte : bytes) byte = static_cast<char>(random());
                const int fitting = std::min(asked, size - held);
                if (random() % 3 == 0) {
                    for (int at = fitting; at-- > 0;) rngPutAhead(ring, bytes[static_cast<std::size_t>(at)], at);
                    expectHolds(ring, size, held);
                    rngMoveAhead(ring, fitting);
                } else {
                    ASSERT_EQ(rngBufPut(ring, bytes.data(), asked), fitting);
                }
                model.insert(model.end(), bytes.begin(), bytes.begin() + fitting);
            } else {
                const int got = rngBufGet(ring, bytes.data(), asked);
                ASSERT_EQ(got, std::min(asked, held));
                ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + got, model.begin()));
                model.erase(model.begin(), model.begin() + got);
            }
            expectHolds(ring, size, static_cast<int>(model.size()));
            if (random() % 500 != 0) continue;
            rngFlush(ring);
            model.clear();
        }
        char byte = 0;
        EXPECT_EQ(rngBufPut(ring, &byte, -1) + rngBufGet(ring, &byte, -1), 0);
        rngFlush(ring);
        rngPutAhead(ring, 'z', -3), rngPutAhead(ring, 'z', 1000);
        expectHolds(ring, size, 0);
        rngDelete(ring);
    }
    EXPECT_EQ(rngCreate(-1), nullptr);
    EXPECT_EQ(rngCreate(INT32_MAX), nullptr);
}

TEST(Ring, StreamsBetweenTwoThreads) {
    const unsigned seed = seeded()();
    const std::size_t total = isFullRun() ? 2'000'000'000 : 2'000'000;
    const zelRingId ring = rngCreate(3000);
    const auto byteAt = [](std::size_t position) { return static_cast<char>(position * 2654435761u >> 13); };
    std::thread writer([&] {
        std::mt19937 random(seed);
        std::vector<char> piece(300);
        for (std::size_t at = 0; at < total;) {
            const auto size = std::min<std::size_t>(1 + random() % piece.size(), total - at);
            for (std::size_t i = 0; i < size; ++i) piece[i] = byteAt(at + i);
            const int put = rngBufPut(ring, piece.data(), static_cast<int>(size));
            if (put == 0) std::this_thread::yield();
            at += static_cast<std::size_t>(put);
        }
    });
    std::mt19937 random(seed + 1);
    std::vector<char> piece(700);
    std::size_t wrong = 0;
    for (std::size_t at = 0; at < total;) {
        const int got = rngBufGet(ring, piece.data(), static_cast<int>(1 + random() % piece.size()));
        if (got == 0) std::this_thread::yield();
        for (int i = 0; i < got; ++i, ++at) wrong += piece[static_cast<std::size_t>(i)] != byteAt(at);
    }
    writer.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(rngIsEmpty(ring), 1);
    rngDelete(ring);
}

}  // namespace
