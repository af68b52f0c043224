// Position maps as they stand in messages, plain or compressed in place.
//
// A map has 4940 positions in 155 words of 32 bits; the last 20 bits are none. The compressed form puts its mark there
// too, so that no plain map looks like a compressed one, and compressing twice is harmless. A compressed list still
// takes all its bytes in a message of fixed layout; what it saves is the work of whoever reads it.
#include <cstring>

#include "ifm/list_bytes.h"

namespace zel::ifm {
namespace {

using EntryIndex = wire::Field<uint16_t, 0>;
using EntryWord = wire::Field<uint32_t, 2>;

// Where positions end, both times within a word.
struct End {
    size_t words;
    uint32_t lastMask;
};
constexpr End endAt(uint32_t positions) {
    return {(positions + 31) / 32, ~(0xffffffffu >> positions % 32)};
}
constexpr End everything = endAt(IFM_IFLIST_POSITIONS);
constexpr End portsAndLags = endAt(IFM_IFLIST_LAG_END);
static_assert(everything.words == IFM_IFLIST_MAP_WORDS && everything.words * 4 == IFM_IFLIST_BYTES);
static_assert((everything.lastMask & 0xffff) == 0, "the mark at the end stands where no position is");

int sizeOf(size_t count) {
    return static_cast<int>(CompressedList::entries + count * listEntrySize);
}

uint32_t wordAt(const uint8_t *list, size_t index, const End &end) {
    const auto word = wire::load<uint32_t>(list + index * 4);
    return index + 1 == end.words ? word & end.lastMask : word;
}

// Whether `Words` words from `index` on are 0; most are.
template <size_t Words>
bool areZero(const uint8_t *list, size_t index) {
    uint64_t parts[Words / 2], any = 0;
    std::memcpy(parts, list + index * 4, sizeof parts);
    for (const uint64_t part : parts) any |= part;
    return any == 0;
}

// The first word from `index` on that is not 0, `end` without one.
size_t nextSet(const uint8_t *list, size_t index, size_t end) {
    while (index + 16 <= end && areZero<16>(list, index)) index += 16;
    if (index + 8 <= end && areZero<8>(list, index)) index += 8;
    if (index + 4 <= end && areZero<4>(list, index)) index += 4;
    while (index + 2 <= end && areZero<2>(list, index)) index += 2;
    while (index < end && wire::load<uint32_t>(list + index * 4) == 0) ++index;
    return index;
}

int keepPlain(uint8_t *list) {
    const size_t last = everything.words - 1;
    wire::store<uint32_t>(list + last * 4, wordAt(list, last, everything));
    return IFM_IFLIST_BYTES;
}

// Writes the compressed form of `count` entries over the map it was made of.
int replace(uint8_t *list, uint8_t *form, size_t count, const End &end) {
    CompressedList::Mark::set(form, listMark);
    CompressedList::Count::set(form, static_cast<uint16_t>(count));
    // What is not an entry's word is 0 already, but for what lies behind the end.
    for (size_t i = 0; i < count; ++i)
        std::memset(list + EntryIndex::get(form + CompressedList::entries + i * listEntrySize) * 4, 0, 4);
    std::memset(list + (end.words - 1) * 4, 0, IFM_IFLIST_BYTES - (end.words - 1) * 4);
    const auto used = static_cast<size_t>(sizeOf(count));
    std::memcpy(list, form, used);
    CompressedList::Seal::set(list, listMark);
    return static_cast<int>(used);
}

int compress(void *list, const End &end) {
    if (isCompressed(list)) {
        const size_t count = CompressedList::Count::get(list);
        return count <= CompressedList::mostEntries ? sizeOf(count) : IFM_ERR_FORMAT;
    }
    auto *bytes = static_cast<uint8_t *>(list);
    uint8_t form[IFM_IFLIST_BYTES];
    size_t count = 0;
    for (size_t index = 0; (index = nextSet(bytes, index, end.words)) < end.words; ++index) {
        const uint32_t word = wordAt(bytes, index, end);
        if (word == 0) continue;
        if (count == CompressedList::mostEntries) return keepPlain(bytes);
        uint8_t *entry = form + CompressedList::entries + count++ * listEntrySize;
        EntryIndex::set(entry, static_cast<uint16_t>(index));
        EntryWord::set(entry, word);
    }
    return replace(bytes, form, count, end);
}

int readCompressed(const uint8_t *list, uint32_t *map) {
    const size_t count = CompressedList::Count::get(list);
    if (count > CompressedList::mostEntries) return IFM_ERR_FORMAT;
    std::memset(map, 0, IFM_IFLIST_BYTES);
    size_t next = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t *entry = list + CompressedList::entries + i * listEntrySize;
        const size_t index = EntryIndex::get(entry);
        if (index < next || index >= IFM_IFLIST_MAP_WORDS) return IFM_ERR_FORMAT;
        map[index] = EntryWord::get(entry);
        next = index + 1;
    }
    return IFM_OK;
}

int readPlain(const uint8_t *list, uint32_t *map) {
    for (size_t i = 0; i < IFM_IFLIST_MAP_WORDS; ++i) map[i] = wire::load<uint32_t>(list + i * 4);
    return IFM_OK;
}

}  // namespace
}  // namespace zel::ifm

using namespace zel::ifm;

int ifmCompressIFList(void *list) {
    return list ? compress(list, everything) : IFM_ERROR;
}

int ifmCompressPhyLagIFList(void *list) {
    return list ? compress(list, portsAndLags) : IFM_ERROR;
}

int ifmUncompressIFList(void *list) {
    uint32_t map[IFM_IFLIST_MAP_WORDS];
    const int result = ifmMapFromBytes(list, map);
    if (result == IFM_OK) ifmMapToBytes(map, list);
    return result;
}

void ifmMapToBytes(const uint32_t *map, void *list) {
    auto *bytes = static_cast<uint8_t *>(list);
    for (size_t i = 0; i < IFM_IFLIST_MAP_WORDS; ++i) zel::wire::store<uint32_t>(bytes + i * 4, map[i]);
}

int ifmMapFromBytes(const void *list, uint32_t *map) {
    if (!list || !map) return IFM_ERROR;
    const auto *bytes = static_cast<const uint8_t *>(list);
    const int result = isCompressed(list) ? readCompressed(bytes, map) : readPlain(bytes, map);
    if (result != IFM_OK) return result;
    return map[everything.words - 1] & ~everything.lastMask ? IFM_ERR_FORMAT : IFM_OK;
}
