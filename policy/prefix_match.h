// What decides about a prefix in a prefix list.
#pragma once

#include <cstdint>

#include "policy/prefix_layout.h"

namespace zel::policy {

// Whether an entry takes a query of `length` bits: the entry's own prefix length, its bounds, and the bits of an
// address of its family. `isDefault`: its address and mask are all zero.
constexpr bool acceptsLength(bool isDefault, std::uint32_t length, std::uint32_t prefix, std::uint32_t ge,
                             std::uint32_t le, std::uint32_t bits) {
    if (isDefault && ge == 0) {
        if (le == bits) return true;
        if (le == 0) return length == prefix;
    }
    if (le == 0) return ge == 0 ? length == prefix && prefix != 255 : ge <= length && length <= bits;
    return (ge != 0 ? ge : prefix) <= length && length <= le;
}

// The verdict of a list about an address and its prefix length, by an entry whose hits it counts; 0 without a list. In
// a list of another family no entry matches.
std::uint32_t checkPrefix(const ListNode *list, Key<4> address, std::uint32_t length);
std::uint32_t checkPrefix(const ListNode *list, Key<16> address, std::uint32_t length);
// The same for an address of either family in network order. A null address, or another family, matches no entry.
std::uint32_t checkPrefix(const ListNode *list, const std::uint8_t *address, std::uint32_t length, int family);

// The sequence number of the entry that decides, 0 when none does; counts no hit.
std::uint32_t entryOfPrefix(const ListNode *list, const std::uint8_t *address, std::uint32_t length, int family);

// The verdict of an image of that width of addresses.
template <std::uint32_t Width>
std::uint32_t checkPrefix(const Bytes &image, Key<Width> address, std::uint32_t length);

}  // namespace zel::policy
