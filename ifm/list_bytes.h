// The frame of a compressed list, for those who look before they call.
#pragma once

#include "base/wire.h"
#include "zel/ifm.h"

namespace zel::ifm {

constexpr uint16_t listMark = 0x4c43;
constexpr size_t listEntrySize = 6;

struct CompressedList {
    using Mark = wire::Field<uint16_t, 0>;
    using Count = wire::Field<uint16_t, 2>;
    static constexpr size_t entries = 4;
    using Seal = wire::Field<uint16_t, IFM_IFLIST_BYTES - 2>;
    static constexpr size_t mostEntries = (Seal::offset - entries) / listEntrySize;
};

inline bool isCompressed(const void *list) {
    return CompressedList::Mark::get(list) == listMark && CompressedList::Seal::get(list) == listMark;
}

}  // namespace zel::ifm
