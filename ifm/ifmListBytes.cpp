// Position maps as they stand in messages, plain or compressed in place.
//
// A map has 4940 positions in 155 words of 32 bits; the last 20 bits are none. The compressed form puts its mark there
// too, so that no plain map looks like a compressed one, and compressing twice is harmless. A compressed list still
// takes all its bytes in a message of fixed layout; what it saves is the work of whoever reads it.
#include <cstring>

#include "base/wire.h"
#include "zel/ifm.h"

namespace zel::ifm {
namespace {

constexpr uint16_t mark = 0x4c43;
constexpr size_t entrySize = 6;

struct CompressedList {
    using Mark = wire::Field<uint16_t, 0>;
    using Count = wire::Field<uint16_t, 2>;
    static constexpr size_t entries = 4;
    using Seal = wire::Field<uint16_t, IFM_IFLIST_BYTES - 2>;
    static constexpr size_t mostEntries = (Seal::offset - entries) / entrySize;
};
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

bool isCompressed(const void *list) {
    return CompressedList::Mark::get(list) == mark && CompressedList::Seal::get(list) == mark;
}

int sizeOf(size_t count) {
    return static_cast<int>(CompressedList::entries + count * entrySize);
}

uint32_t wordAt(const uint8_t *list, size_t index, const End &end) {
    const auto word = wire::load<uint32_t>(list + index * 4);
    return index + 1 == end.words ? word & end.lastMask : word;
}

// Whether two words from `index` on are 0; most are.
bool isPairZero(const uint8_t *list, size_t index) {
    uint64_t pair;
    std::memcpy(&pair, list + index * 4, sizeof pair);
    return pair == 0;
}

int keepPlain(uint8_t *list) {
    const size_t last = everything.words - 1;
    wire::store<uint32_t>(list + last * 4, wordAt(list, last, everything));
    return IFM_IFLIST_BYTES;
}

int compress(void *list, const End &end) {
    if (isCompressed(list)) {
        const size_t count = CompressedList::Count::get(list);
        return count <= CompressedList::mostEntries ? sizeOf(count) : IFM_ERR_FORMAT;
    }
    auto *bytes = static_cast<uint8_t *>(list);
    uint8_t form[IFM_IFLIST_BYTES];
    size_t count = 0;
    for (size_t index = 0; index < end.words; ++index) {
        if (index + 1 < end.words && isPairZero(bytes, index)) {
            ++index;
            continue;
        }
        const uint32_t word = wordAt(bytes, index, end);
        if (word == 0) continue;
        if (count == CompressedList::mostEntries) return keepPlain(bytes);
        uint8_t *entry = form + CompressedList::entries + count++ * entrySize;
        EntryIndex::set(entry, static_cast<uint16_t>(index));
        EntryWord::set(entry, word);
    }
    const auto used = static_cast<size_t>(sizeOf(count));
    CompressedList::Mark::set(form, mark);
    CompressedList::Count::set(form, static_cast<uint16_t>(count));
    std::memcpy(bytes, form, used);
    std::memset(bytes + used, 0, IFM_IFLIST_BYTES - used);
    CompressedList::Seal::set(bytes, mark);
    return static_cast<int>(used);
}

int readCompressed(const uint8_t *list, uint32_t *map) {
    const size_t count = CompressedList::Count::get(list);
    if (count > CompressedList::mostEntries) return IFM_ERR_FORMAT;
    std::memset(map, 0, IFM_IFLIST_BYTES);
    size_t next = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t *entry = list + CompressedList::entries + i * entrySize;
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
