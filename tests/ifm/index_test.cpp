// Interface indexes field by field over every value of every field, names there and back, positions, VLAN bitmaps.
#include <gtest/gtest.h>

#include <cctype>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/reports.h"
#include "zel/ifm.h"

namespace zel::test {
namespace {

constexpr uint32_t namedTypes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14, 18, 19, 20, 22, 24, 25};

std::string longName(uint32_t ifIndex) {
    char buffer[IFM_NAME_SIZE];
    return ifmIfIndexToLName(ifIndex, buffer);
}

std::string shortName(uint32_t ifIndex) {
    char buffer[IFM_NAME_SIZE];
    return ifmIfIndexToName(ifIndex, buffer);
}

TEST(IfIndex, KnownIndexes) {
    EXPECT_EQ(ifmCreatePhysicalIfIndex(3, 0, 5, 0), 0x00100283u);
    EXPECT_EQ(ifmCreateLogicalIfIndex(24, 0, 0, 100), 0x4c00c800u);
    EXPECT_EQ(ifmCreatePeIfIndex(7, 2, 3, 5), 0x20520607u);
    EXPECT_EQ(ifmGetIfIndexToLogicalSlotId(0x20520607), 5 * 16 + 2 + 48);
    EXPECT_EQ(ifmGetIfIndexToLogicalSlotId(0x00100283), 0);
    EXPECT_EQ(ifmIfIndexToChasId(0x1c000000), 7u);
    EXPECT_EQ(ifmIfIndexToModId(0x000e0000), 7u);
    EXPECT_EQ(ifmIfIndexResetPort(0x20520607), 0x20520007u);
    EXPECT_EQ(ifmIfIndexResetPort(0x4c00c800), 0x4c00c800u);
    EXPECT_EQ(ifmIfIndexResetPortIfNum(0x4c00c800), 0x4c000000u);
    EXPECT_EQ(ifmIfIndexResetPortIfNum(0x00100283), 0x00100003u);
    EXPECT_EQ(ifmGetIfIndexWithNewType(0x00100283, 4), 0x00100284u);
}

// Counts mismatches, since millions of expectations would take minutes.
TEST(IfIndex, EveryPhysicalIndexDecodes) {
    long wrong = 0;
    for (uint32_t type = 0; type < 16; ++type)
        for (uint16_t slot = 0; slot < 64; ++slot)
            for (uint16_t port = 0; port < 1024; ++port) {
                const uint32_t index = ifmCreatePhysicalIfIndex(type, slot, port, 9999);
                const int expectedSlot = type >= 7 && type <= 9 ? port >> 9 : slot == 63 ? -1 : slot;
                wrong += ifmIfIndexToIfType(index) != type || ifmIfIndexToPortId(index) != port ||
                         ifmIfIndexToSlotId(index) != expectedSlot || !ifmIfIndexToPlFlag(index) ||
                         ifmIfIndexToPeFlag(index) || ifmPhysIfUnit(index) != expectedSlot * 54 + port ||
                         (type != 7 && type != 8 && ifmCreateIfIndex(type, slot, port, 9999) != index);
            }
    EXPECT_EQ(wrong, 0);
}

TEST(IfIndex, EveryExtenderAndLogicalIndexDecodes) {
    long wrong = 0;
    for (uint32_t type : {7u, 8u})
        for (uint16_t extender = 0; extender < 512; ++extender)
            for (uint16_t slot = 0; slot < 16; ++slot)
                for (uint16_t port = 0; port < 128; ++port) {
                    const uint32_t index = ifmCreateIfIndex(type, slot, port, extender);
                    wrong += ifmIfIndexToIfType(index) != type || ifmIfIndexToPeId(index) != extender ||
                             ifmIfIndexToSlotId(index) != slot || ifmIfIndexToPortId(index) != port ||
                             !ifmIfIndexToPlFlag(index) || !ifmIfIndexToPeFlag(index);
                }
    for (uint32_t type = 0; type < 128; ++type)
        for (uint16_t number = 0; number < 16384; ++number) {
            const uint32_t index = ifmCreateLogicalIfIndex(type, 9999, 9999, number);
            wrong += ifmIfIndexToIfType(index) != type || ifmIfIndexToIfNum(index) != number ||
                     ifmIfIndexToVlanId(index) != number || ifmIfIndexToVrfId(index) != number ||
                     ifmIfIndexToPlFlag(index) || ifmIfIndexToPeFlag(index) ||
                     (type & 0x10 && ifmCreateIfIndex(type, 9999, 9999, number) != index);
        }
    EXPECT_EQ(wrong, 0);
}

TEST(IfNames, AreWrittenByLayout) {
    EXPECT_EQ(shortName(ifmCreateIfIndex(4, 2, 7, 0)), "Te 2/8");
    EXPECT_EQ(longName(ifmCreateIfIndex(10, 2, 7, 0)), "TenGigabitEthernet 2/8");
    EXPECT_EQ(longName(ifmCreateIfIndex(8, 2, 7, 300)), "peTenGigE 300/2/8");
    EXPECT_EQ(shortName(ifmCreateIfIndex(22, 0, 0, 128)), "Po 128");
    EXPECT_EQ(longName(ifmCreateIfIndex(25, 0, 0, 5)), "VirtualPort 5");
    EXPECT_EQ(longName(ifmCreateIfIndex(1, 14, 0, 0)), "ManagementEthernet 1/1");
    EXPECT_EQ(shortName(ifmCreateIfIndex(15, 0, 0, 0)), "Unknown 0/1");
    EXPECT_EQ(shortName(0), "Invalid");
    EXPECT_EQ(ifmIfIndexToName(1, nullptr), nullptr);
    EXPECT_EQ(lastAssertion(), "ifNameBuf != NULL");
    EXPECT_EQ(ifmIfIndexToLName(1, nullptr), nullptr);
    EXPECT_EQ(lastAssertion(), "ifLNameBuf != NULL");
}

// Every type in every layout, with the blank, without it, and in the other case.
TEST(IfNames, AreReadBack) {
    const auto expectReadBack = [](uint32_t index) {
        std::string name = longName(index);
        EXPECT_EQ(zelIfmLNameToIfIndex(name.c_str()), index) << name;
        name.erase(name.find(' '), 1);
        for (char &letter : name) letter = static_cast<char>(isupper(letter) ? tolower(letter) : toupper(letter));
        EXPECT_EQ(zelIfmLNameToIfIndex(name.c_str()), index) << name;
    };
    using Values = std::vector<uint16_t>;
    for (const uint32_t type : namedTypes) {
        const bool hasExtenderSlot = type >= 7 && type <= 9;
        for (const uint16_t port : hasExtenderSlot ? Values{0, 127} : Values{0, 9, 127, 1023})
            for (const uint16_t slot : hasExtenderSlot ? Values{0, 15} : Values{0, 13, 62, 63})
                for (const uint16_t extender : hasExtenderSlot ? Values{0, 511} : Values{0})
                    expectReadBack(hasExtenderSlot ? ifmCreatePeIfIndex(type, slot, port, extender)
                                                   : ifmCreatePhysicalIfIndex(type, slot, port, 0));
        for (const uint16_t number : Values{0, 1, 4096, 16383})
            expectReadBack(ifmCreateLogicalIfIndex(type, 0, 0, number));
    }
}

TEST(IfNames, WhatIsNoNameIsRefused) {
    std::istringstream refused(
        "; ;Vlan;Vlan ;Vlan x;Vlan -1;Vlan 16384;Vlan 5x;Vlan 5 ;Vla 5;Invalid;Unknown 5;"
        "GigabitEthernet 0/0;GigabitEthernet 63/1;GigabitEthernet 0/1025;GigabitEthernet 0/;"
        "GigabitEthernet /1;GigabitEthernet 0/1/1;peGigE 512/0/1;peGigE 0/16/1;peGigE 0/0/129;"
        "peGigE 0/0/0;peGigE 0/0/1/1;ManagementEthernet -15/1;Vlan 007;ManagementEthernet -0/1;"
        "peFortyGigE 5/3;Vlan 99999999999999999999");
    for (std::string text; std::getline(refused, text, ';');) EXPECT_EQ(zelIfmLNameToIfIndex(text.c_str()), 0u) << text;
    EXPECT_EQ(zelIfmLNameToIfIndex(nullptr), 0u);
}

TEST(IfNames, FollowTheCardTable) {
    zelCardTable cards = {};
    cards.cardType = [](void *, int slot) { return static_cast<uint32_t>(slot + 40); };
    cards.portText = [](void *, int, uint32_t port, char *text, size_t size) {
        snprintf(text, size, "%u/%c", port / 4 + 1, 'a' + static_cast<char>(port % 4));
    };
    zelPlatformSetCardTable(&cards);
    const uint32_t index = ifmCreateIfIndex(3, 2, 7, 0), management = ifmCreateIfIndex(1, 13, 3, 0);
    EXPECT_EQ(longName(index), "GigabitEthernet 2/2/d");
    EXPECT_EQ(zelIfmLNameToIfIndex("gigabitethernet2/2/D"), index);
    EXPECT_EQ(shortName(management), "Ma 0/1/d");
    EXPECT_EQ(ifmIfIndexToCardType(index), 42u);
    EXPECT_EQ(ifmIfIndexToCardType(management), 200u);
    EXPECT_EQ(ifmIfIndexToCardType(0), 0u);
    EXPECT_EQ(ifmIfIndexToCardType(ifmCreateIfIndex(24, 0, 0, 1)), 0u);
    cards.hasFourPartNames = 1;
    zelPlatformSetCardTable(&cards);
    EXPECT_EQ(longName(management), "ManagementEthernet 0/4");
    EXPECT_EQ(zelIfmLNameToIfIndex("ManagementEthernet 0/4"), management);
    zelPlatformSetCardTable(nullptr);
    EXPECT_EQ(ifmIfIndexToCardType(index), 0u);
}

TEST(IfPositions, HaveExactlyTheirBounds) {
    struct Row {
        int pos;
        ifmIfInfo info;
    };
    for (const Row &row : {Row{0, {0, 0, 0, 0, 1}}, Row{714, {0, 13, 12, 0, 1}}, Row{715, {22, 0, 0, 1, 0}},
                           Row{843, {22, 0, 0, 129, 0}}, Row{844, {24, 0, 0, 1, 0}}, Row{4939, {24, 0, 0, 4096, 0}},
                           Row{4940, {18, 0, 0, 1, 0}}, Row{21323, {18, 0, 0, 16384, 0}}}) {
        ifmIfInfo info = {};
        EXPECT_EQ(IFM_IFLIST_POS_TO_IFINFO(row.pos, &info), row.pos < 4940 ? 0 : -1);
        EXPECT_EQ(IFM_EXT_IFLIST_POS_TO_IFINFO(row.pos, &info), 0);
        EXPECT_EQ(memcmp(&info, &row.info, sizeof info), 0) << row.pos;
    }
    ifmIfInfo info = {};
    for (const int pos : {-1, 21324}) EXPECT_EQ(IFM_EXT_IFLIST_POS_TO_IFINFO(pos, &info), -1);
    EXPECT_EQ(IFM_IFLIST_POS_TO_IFINFO(-1, &info), -1);

    for (int pos = 0; pos < IFM_EXT_IFLIST_POSITIONS; ++pos) {
        ASSERT_EQ(ifmExtIfPosToIfInfo(pos, &info), 0);
        const auto field = [](uint32_t value) { return static_cast<uint16_t>(value); };
        const uint32_t index =
            ifmCreateIfIndex(info.physical ? 3 : info.type, field(info.slot), field(info.port), field(info.num));
        if (info.num == 16384) continue;  // the number field ends at 16383
        ASSERT_EQ(ifmIfIndexToExtIfPos(index), pos);
        ASSERT_EQ(ifmIfIndexToIfPos(index), pos < 4940 ? pos : -1);
    }
    EXPECT_EQ(ifmIfIndexToIfPos(ifmCreateIfIndex(9, 5, 3, 0)), 5 * 54 + 3);
    for (const uint32_t index : {ifmCreateIfIndex(3, 13, 13, 0), ifmCreateIfIndex(3, 0, 54, 0),
                                 ifmCreateIfIndex(7, 0, 0, 0), ifmCreateIfIndex(22, 0, 0, 130), 0u})
        EXPECT_EQ(ifmIfIndexToExtIfPos(index), -1);
}

TEST(VlanBitmap, TheThreeBoundsDiffer) {
    auto bitmap = std::make_unique<uint32_t[]>(IFM_VLAN_BITMAP_WORDS);
    for (const uint32_t vlan : {0u, 31u, 32u, 4094u, 4095u, 4096u, 4097u, 0xffffffffu}) {
        ifmVlanIfListAddVlanId(bitmap.get(), vlan);
        EXPECT_EQ(ifmVlanIfListHasVlanId(bitmap.get(), vlan), vlan < 4095) << vlan;
    }
    EXPECT_EQ(bitmap[0], 0x80000001u);
    bitmap[127] |= 1;
    bitmap[128] = 0xffffffff;
    for (const uint32_t vlan : {0u, 31u, 32u, 4094u, 4095u, 4096u, 4097u}) {
        ifmVlanIfListDelVlanId(bitmap.get(), vlan);
        EXPECT_EQ(ifmVlanIfListHasVlanId(bitmap.get(), vlan), vlan == 4095 || vlan == 4096) << vlan;
    }
    EXPECT_EQ(IFM_IS_BMP_EMPTY(bitmap.get(), 4063), 1u);
    EXPECT_EQ(IFM_IS_BMP_EMPTY(bitmap.get(), 4064), 0u);  // a length of whole words looks at one word more
}

}  // namespace
}  // namespace zel::test
