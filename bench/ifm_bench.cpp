// Interface indexes against the bare shifts, compression of a list against a byte at a time.
#include <array>
#include <cstring>
#include <vector>

#include "bench/support/row.h"
#include "zel/ifm.h"

namespace {

// One iteration encodes, or decodes, an index of each kind.
void encode(benchmark::State &state) {
    uint16_t slot = 3, port = 17;
    for (auto _ : state) {
        benchmark::DoNotOptimize(slot);
        benchmark::DoNotOptimize(port);
        uint32_t sum = ifmCreateIfIndex(3, slot, port, 0);
        sum ^= ifmCreateIfIndex(7, slot, port, slot);
        sum ^= ifmCreateIfIndex(24, slot, port, port);
        benchmark::DoNotOptimize(sum);
    }
}

void shiftIn(benchmark::State &state) {
    uint16_t slot = 3, port = 17;
    for (auto _ : state) {
        benchmark::DoNotOptimize(slot);
        benchmark::DoNotOptimize(port);
        uint32_t sum = ((slot + 1u) & 63) << 20 | (port & 1023u) << 7 | 3;
        sum ^= 0x20000000u | (slot & 511u) << 20 | (slot & 15u) << 16 | (port & 127u) << 9 | 7;
        sum ^= 0x40000000u | 24u << 23 | (port & 16383u) << 9;
        benchmark::DoNotOptimize(sum);
    }
}

void decode(benchmark::State &state) {
    uint32_t physical = ifmCreateIfIndex(3, 3, 17, 0), logical = ifmCreateIfIndex(24, 0, 0, 100);
    for (auto _ : state) {
        benchmark::DoNotOptimize(physical);
        benchmark::DoNotOptimize(logical);
        uint32_t sum = ifmIfIndexToIfType(physical) ^ static_cast<uint32_t>(ifmIfIndexToSlotId(physical)) ^
                       ifmIfIndexToPortId(physical) ^ ifmIfIndexToIfType(logical) ^ ifmIfIndexToIfNum(logical);
        benchmark::DoNotOptimize(sum);
    }
}

// The same choices of layout, written down where they are needed.
uint32_t bareType(uint32_t index) {
    return (index & 0x40000000 ? index >> 23 : index) & 127;
}

void shiftOut(benchmark::State &state) {
    uint32_t physical = ifmCreateIfIndex(3, 3, 17, 0), logical = ifmCreateIfIndex(24, 0, 0, 100);
    for (auto _ : state) {
        benchmark::DoNotOptimize(physical);
        benchmark::DoNotOptimize(logical);
        const uint32_t type = bareType(physical);
        const uint32_t slot = type >= 7 && type <= 9 ? physical >> 16 & 15 : (physical >> 20 & 63) - 1;
        const uint32_t port = (physical & 0x60000000) == 0x20000000 ? physical >> 9 & 127 : physical >> 7 & 1023;
        uint32_t sum = type ^ slot ^ port ^ bareType(logical) ^ (logical >> 9 & 16383);
        benchmark::DoNotOptimize(sum);
    }
}

using Map = std::array<uint32_t, IFM_IFLIST_MAP_WORDS>;

// A switch's list: two cards of ports, some port channels, VLANs in ranges and alone.
Map typicalMap() {
    Map map{};
    const auto set = [&map](int pos) { map[static_cast<size_t>(pos / 32)] |= 0x80000000u >> (pos % 32); };
    for (int pos = 0; pos < 96; ++pos) set(pos);
    for (int pos = 715; pos < 731; ++pos) set(pos);
    for (int pos = 944; pos < 1444; ++pos) set(pos);
    for (int pos = 2000; pos < 4900; pos += 307) set(pos);
    return map;
}

void compress(benchmark::State &state) {
    const Map map = typicalMap();
    uint8_t out[IFM_COMPRESSED_SIZE(IFM_IFLIST_POSITIONS)];
    for (auto _ : state) {
        int length = ifmBitmapCompress(map.data(), IFM_IFLIST_POSITIONS, out, sizeof out);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
}

// The same bytes, made a byte at a time.
size_t byteLoop(const Map &map, uint8_t *out) {
    const auto byteAt = [&map](size_t i) { return static_cast<uint8_t>(map[i / 4] >> (24 - i % 4 * 8)); };
    const auto isRunByte = [](uint8_t byte) { return byte == 0x00 || byte == 0xff; };
    constexpr size_t count = sizeof(Map);
    size_t used = 0;
    for (size_t at = 0; at < count;) {
        const uint8_t first = byteAt(at);
        size_t length = 1;
        if (isRunByte(first) && (at + 1 == count || byteAt(at + 1) == first)) {
            while (length < 64 && at + length < count && byteAt(at + length) == first) ++length;
            out[used++] = static_cast<uint8_t>((first ? 0x40 : 0x00) | (length - 1));
            at += length;
            continue;
        }
        while (length < 64 && at + length < count &&
               !(isRunByte(byteAt(at + length)) && at + length + 1 < count &&
                 byteAt(at + length + 1) == byteAt(at + length)))
            ++length;
        out[used++] = static_cast<uint8_t>(0x80 | (length - 1));
        for (size_t i = 0; i < length; ++i) out[used++] = byteAt(at++);
    }
    return used;
}

void compressByBytes(benchmark::State &state) {
    const Map map = typicalMap();
    uint8_t out[IFM_COMPRESSED_SIZE(IFM_IFLIST_POSITIONS)], ours[sizeof out];
    const int length = ifmBitmapCompress(map.data(), IFM_IFLIST_POSITIONS, ours, sizeof ours);
    if (byteLoop(map, out) != static_cast<size_t>(length) || memcmp(out, ours, static_cast<size_t>(length)) != 0) {
        state.SkipWithError("the two make different bytes");
        return;
    }
    for (auto _ : state) {
        size_t used = byteLoop(map, out);
        benchmark::DoNotOptimize(used);
        benchmark::ClobberMemory();
    }
}

ZEL_ROW("interface index encode", "ns", time).ours(encode).peer("the bare shifts", shiftIn, 1.5);
ZEL_ROW("interface index decode", "ns", time).ours(decode).peer("the bare shifts", shiftOut, 1.5);
ZEL_ROW("list compression, 4,940 bits", "ns", time).ours(compress).peer("a byte loop", compressByBytes, 0.3);

}  // namespace
