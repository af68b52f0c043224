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

TEST(Ring, AgreesWithAModel) {
    Random random = seeded();
    for (int size = 0; size < 40; ++size) {
        const zelRingId ring = rngCreate(size);
        std::deque<char> model;
        for (int i = 0; i < 2000; ++i) {
            std::vector<char> bytes(random() % 50);
            const int asked = static_cast<int>(bytes.size());
            const int held = static_cast<int>(model.size());
            if (random() % 2 == 0) {
                for (char &byte : bytes) byte = static_cast<char>(random());
                const int put = rngBufPut(ring, bytes.data(), asked);
                ASSERT_EQ(put, std::min(asked, size - held));
                model.insert(model.end(), bytes.begin(), bytes.begin() + put);
            } else {
                const int got = rngBufGet(ring, bytes.data(), asked);
                ASSERT_EQ(got, std::min(asked, held));
                ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + got, model.begin()));
                model.erase(model.begin(), model.begin() + got);
            }
            expectHolds(ring, size, static_cast<int>(model.size()));
            if (random() % 500 == 0) {
                rngFlush(ring);
                model.clear();
            }
        }
        char byte = 0;
        EXPECT_EQ(rngBufPut(ring, &byte, -1) + rngBufGet(ring, &byte, -1), 0);
        rngDelete(ring);
    }
    EXPECT_EQ(rngCreate(-1), nullptr);
    EXPECT_EQ(rngCreate(INT32_MAX), nullptr);
}

// Bytes put ahead in any order become readable together, also over the end of the ring.
TEST(Ring, BytesPutAheadAppearWhenTheIndexMoves) {
    const zelRingId ring = rngCreate(10);
    char buffer[16] = {};
    for (int round = 0; round < 30; ++round) {
        for (int i = 6; i >= 0; --i) rngPutAhead(ring, static_cast<char>('a' + i), i);
        expectHolds(ring, 10, 0);
        rngMoveAhead(ring, 7);
        expectHolds(ring, 10, 7);
        EXPECT_EQ(rngBufGet(ring, buffer, 16), 7);
        EXPECT_EQ(std::string(buffer, 7), "abcdefg");
    }
    rngPutAhead(ring, 'z', -3);
    rngPutAhead(ring, 'z', 1000);
    expectHolds(ring, 10, 0);
    rngDelete(ring);
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
