// Lists of interfaces against a std::set, and their maps and compressed form.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <set>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "zel/ifm.h"

namespace zel::test {
namespace {

struct List : ifmIfList {
    List() { EXPECT_EQ(IFM_IFLIST_INIT(this), IFM_OK); }
    List(const List &) = delete;
    ~List() { IFM_IFLIST_DESTROY(this); }
};

std::set<uint32_t> membersOf(const ifmIfList &list) {
    std::set<uint32_t> members;
    for (uint32_t at = 0; (at = IFM_IFLIST_NEXT(&list, at)) != 0;) {
        EXPECT_TRUE(members.empty() || at > *members.rbegin());
        members.insert(at);
    }
    EXPECT_EQ(IFM_IFLIST_COUNT(&list), members.size());
    checkRBTree(*list.physical);
    checkRBTree(*list.lag);
    return members;
}

uint32_t randomInterface(Random &random) {
    const auto below = [&random](uint32_t end) { return static_cast<uint16_t>(random() % end); };
    switch (random() % 4) {
        case 0:
            return ifmCreateIfIndex(3 + random() % 2, below(14), below(60), 0);
        case 1:
            return ifmCreateIfIndex(7, below(4), below(8), below(4));
        case 2:
            return ifmCreateIfIndex(IFM_TYPE_PORT_CHANNEL, 0, 0, below(140));
        default:
            return ifmCreateIfIndex(IFM_TYPE_VLAN, 0, 0, below(4100));
    }
}

TEST(IfList, RandomOperationsAgainstASet) {
    Random random = seeded();
    List list, copy;
    std::set<uint32_t> model;
    const int steps = isFullRun() ? 1'000'000 : 100'000;
    for (int step = 0; step < steps; ++step) {
        const uint32_t index = randomInterface(random);
        const bool isMember = model.contains(index);
        const bool fits = ifmIfIndexToIfType(index) != IFM_TYPE_VLAN || ifmIfIndexToVlanId(index) < 4095;
        ASSERT_EQ(IFM_IFLIST_HAS(&list, index), isMember);
        const auto above = model.upper_bound(index);
        ASSERT_EQ(IFM_IFLIST_NEXT(&list, index), above == model.end() ? 0 : *above);
        if (random() % 3) {
            ASSERT_EQ(IFM_IFLIST_ADD(&list, index), fits ? int{IFM_OK} : IFM_ERR_TYPE);
            if (fits) model.insert(index);
        } else {
            ASSERT_EQ(IFM_IFLIST_DEL(&list, index), isMember ? int{IFM_OK} : IFM_ERR_NO_MEMBER);
            model.erase(index);
        }
        if (model.size() > 64 && step % 5'000) continue;
        ASSERT_EQ(membersOf(list), model);
        ASSERT_EQ(IFM_IFLIST_COPY(&copy, &list), IFM_OK);
        ASSERT_TRUE(IFM_IFLIST_EQUAL(&copy, &list));
    }
    EXPECT_EQ(IFM_IFLIST_ADD(&list, ifmCreateIfIndex(IFM_TYPE_TUNNEL, 0, 0, 1)), IFM_ERR_TYPE);
    for (const uint32_t none : {0u, 0x80100283u, 0x80000000u | ifmCreateIfIndex(24, 0, 0, 1)})
        EXPECT_EQ(IFM_IFLIST_ADD(&list, none), IFM_ERR_TYPE);
    IFM_IFLIST_CLEAR(&list);
    EXPECT_TRUE(membersOf(list).empty());
    EXPECT_FALSE(IFM_IFLIST_EQUAL(&copy, &list));
}

TEST(IfList, EveryAllocationFailsInTurn) {
    {
        ifmIfList fresh;
        for (unsigned nth = 1; nth <= 2; ++nth) {
            FailingAllocator::failAt(nth);
            EXPECT_EQ(IFM_IFLIST_INIT(&fresh), IFM_ERR_NO_MEMORY);
            EXPECT_EQ(FailingAllocator::live(), 0);
        }
        List from, to;
        for (uint16_t i = 0; i < 5; ++i) ASSERT_EQ(IFM_IFLIST_ADD(&from, ifmCreateIfIndex(3, 0, i, 0)), IFM_OK);
        ASSERT_EQ(IFM_IFLIST_ADD(&to, ifmCreateIfIndex(22, 0, 0, 7)), IFM_OK);
        int result = IFM_ERR_NO_MEMORY;
        for (unsigned nth = 1; result != IFM_OK; ++nth) {
            const int live = FailingAllocator::live();
            const auto members = membersOf(to);
            FailingAllocator::failAt(nth);
            result = IFM_IFLIST_COPY(&to, &from);
            ASSERT_EQ(result == IFM_ERR_NO_MEMORY, FailingAllocator::hasFailed());
            if (result == IFM_OK) break;
            ASSERT_EQ(FailingAllocator::live(), live);
            ASSERT_EQ(membersOf(to), members);
        }
        EXPECT_TRUE(IFM_IFLIST_EQUAL(&to, &from));
        FailingAllocator::failAt(0);
    }
    EXPECT_EQ(FailingAllocator::live(), 0);
}

TEST(IfList, GoesThroughItsMap) {
    List list, back;
    for (const uint32_t index : {ifmCreateIfIndex(3, 0, 0, 0), ifmCreateIfIndex(3, 13, 12, 0),
                                 ifmCreateIfIndex(22, 0, 0, 1), ifmCreateIfIndex(24, 0, 0, 4094)})
        ASSERT_EQ(IFM_IFLIST_ADD(&list, index), IFM_OK);
    uint32_t map[IFM_IFLIST_MAP_WORDS];
    EXPECT_EQ(ifmIfListToMap(&list, map), 0);
    EXPECT_EQ(map[0], 0x80000000u);
    EXPECT_EQ(map[715 / 32], 0x80000000u >> (714 % 32) | 0x80000000u >> (715 % 32));
    EXPECT_EQ(map[4937 / 32], 0x80000000u >> (4937 % 32));
    EXPECT_EQ(ifmIfListFromMap(&back, map), IFM_OK);
    EXPECT_TRUE(IFM_IFLIST_EQUAL(&back, &list));
    ASSERT_EQ(IFM_IFLIST_ADD(&list, ifmCreateIfIndex(7, 0, 0, 3)), IFM_OK);
    EXPECT_EQ(ifmIfListToMap(&list, map), 1);
}

TEST(Compression, KnownBytes) {
    const uint32_t bitmap[] = {0x00000000, 0x00120000, 0xffffffff, 0xff34ff00};
    const uint8_t expected[] = {0x04, 0x80, 0x12, 0x01, 0x44, 0x82, 0x34, 0xff, 0x00};
    uint8_t out[sizeof expected];
    ASSERT_EQ(ifmBitmapCompress(bitmap, 128, out, sizeof out), static_cast<int>(sizeof expected));
    EXPECT_EQ(memcmp(out, expected, sizeof expected), 0);
    EXPECT_EQ(ifmBitmapCompress(bitmap, 128, out, sizeof out - 1), IFM_ERR_SIZE);
}

// Bitmaps from empty to full, sparse, dense and noisy, in buffers of exactly their size.
TEST(Compression, ComesBackAndFitsItsBound) {
    Random random = seeded();
    for (int round = 0; round < 2'000; ++round) {
        const uint32_t bits = round % 2 ? uint32_t{IFM_IFLIST_POSITIONS} : random() % 2000, words = (bits + 31) / 32;
        const auto bitmap = std::make_unique<uint32_t[]>(words), back = std::make_unique<uint32_t[]>(words);
        const uint32_t shape = random() % 5, one = random() % 3 + 1;
        for (uint32_t i = 0; i < words; ++i) {
            const uint32_t shapes[] = {0, 0xffffffff, random(), 0xffff0000, 1u << random() % 32};
            bitmap[i] = random() % one ? 0 : shapes[shape];
        }
        const size_t room = IFM_COMPRESSED_SIZE(bits);
        const auto out = std::make_unique<uint8_t[]>(room);
        const int length = ifmBitmapCompress(bitmap.get(), bits, out.get(), room);
        ASSERT_GE(length, 0);
        ASSERT_EQ(ifmBitmapUncompress(out.get(), static_cast<size_t>(length), back.get(), bits), IFM_OK);
        ASSERT_TRUE(std::equal(bitmap.get(), bitmap.get() + words, back.get()));
        if (length == 0) continue;
        const auto cut = std::make_unique<uint8_t[]>(static_cast<size_t>(length) - 1);
        std::copy_n(out.get(), length - 1, cut.get());
        EXPECT_EQ(ifmBitmapUncompress(cut.get(), static_cast<size_t>(length) - 1, back.get(), bits), IFM_ERR_FORMAT);
    }
}

TEST(Compression, JunkIsRefusedWithinBounds) {
    Random random = seeded();
    for (int round = 0; round < 20'000; ++round) {
        const size_t length = random() % 16;
        const auto junk = std::make_unique<uint8_t[]>(length), bitmap = std::make_unique<uint8_t[]>(64);
        for (size_t i = 0; i < length; ++i) junk[i] = static_cast<uint8_t>(random());
        ifmBitmapUncompress(junk.get(), length, reinterpret_cast<uint32_t *>(bitmap.get()), 512);
    }
    const uint8_t reserved[] = {0xc0, 0x00};
    uint32_t word;
    EXPECT_EQ(ifmBitmapUncompress(reserved, sizeof reserved, &word, 32), IFM_ERR_FORMAT);
}

// Every map says the same after compression in place, also one that looks like a compressed list at its front.
TEST(ListInMessages, IsCompressedInPlaceWhenItFits) {
    using Bytes = std::array<uint8_t, IFM_IFLIST_BYTES>;
    Random random = seeded();
    for (uint32_t round = 0; round < 2000; ++round) {
        uint32_t map[IFM_IFLIST_MAP_WORDS] = {}, back[IFM_IFLIST_MAP_WORDS];
        const uint32_t words = round % 3 == 0 ? 100 + random() % 6 : random() % 30;
        for (uint32_t i = 0; i < words; ++i) map[round % 3 == 0 ? i : random() % 155] = random() | 1;
        if (round % 5 == 1) map[0] = 0x4c430000 | random() % 4, map[1] = 0;
        map[154] &= 0xfff00000;
        Bytes plain, list;
        ifmMapToBytes(map, plain.data());
        list = plain;
        const auto used = static_cast<int>(IFM_IFLIST_MAP_WORDS - std::count(map, map + IFM_IFLIST_MAP_WORDS, 0u));
        const int expected = used <= 102 ? 4 + 6 * used : IFM_IFLIST_BYTES;
        for (int time = 0; time < 2; ++time) {
            ASSERT_EQ(ifmCompressIFList(list.data()), expected);
            ASSERT_EQ(ifmMapFromBytes(list.data(), back), IFM_OK);
            ASSERT_EQ(memcmp(map, back, sizeof map), 0) << "round " << round;
        }
        ASSERT_EQ(ifmUncompressIFList(list.data()), IFM_OK);
        ASSERT_EQ(list, plain);

        ASSERT_LE(ifmCompressPhyLagIFList(list.data()), 4 + 6 * 27);
        ASSERT_EQ(ifmMapFromBytes(list.data(), back), IFM_OK);
        for (uint32_t word = 0; word < IFM_IFLIST_MAP_WORDS; ++word)
            ASSERT_EQ(back[word], word < 26 ? map[word] : word == 26 ? map[word] & 0xfff00000 : 0);
    }
}

TEST(ListInMessages, IsRefusedWhenMalformed) {
    std::array<uint8_t, IFM_IFLIST_BYTES> good{}, list;
    good[0] = good[40] = 1;
    ifmCompressIFList(good.data());
    uint32_t map[IFM_IFLIST_MAP_WORDS];
    const struct {
        size_t offset;
        uint8_t value;
    } rows[] = {{3, 103}, {2, 0xff}, {11, 0}, {11, 155}, {10, 1}};  // counts; indexes of the second word
    for (const auto &[offset, value] : rows) {
        list = good;
        list[offset] = value;
        const auto before = list;
        EXPECT_EQ(ifmMapFromBytes(list.data(), map), IFM_ERR_FORMAT) << offset;
        EXPECT_EQ(ifmUncompressIFList(list.data()), IFM_ERR_FORMAT);
        EXPECT_EQ(list, before);
    }
    list[3] = 103;
    EXPECT_EQ(ifmCompressIFList(list.data()), IFM_ERR_FORMAT);
    list = {};
    list[619] = 1;
    EXPECT_EQ(ifmMapFromBytes(list.data(), map), IFM_ERR_FORMAT) << "bits that are no positions";
    EXPECT_EQ(ifmCompressIFList(list.data()), 4) << "go";
}

}  // namespace
}  // namespace zel::test
