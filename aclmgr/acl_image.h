// Images of IP access lists: made from entries, read back, and looked over.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "aclmgr/draft.h"
#include "policy/acl_layout.h"

namespace zel::aclmgr {

// A whole list, each chain in the order of its sequence numbers.
struct AclEntries {
    std::vector<zelAclIpEntry> ip;
    std::vector<zelAclIpv6Entry> ipv6;
};

// What one entry asks of a query, in the shape of the columns.
struct ColumnTest {
    struct Word {
        std::uint32_t mask = 0, value = 0;
        bool isTurned = false;
        auto operator<=>(const Word &) const = default;
    };
    struct Port {
        std::uint16_t low = 0, span = UINT16_MAX;
        auto operator<=>(const Port &) const = default;
    };
    Word words[4];
    Port ports[2];
    auto operator<=>(const ColumnTest &) const = default;
};
struct ColumnEntry {
    ColumnTest test;
    std::uint8_t action;
};
using ColumnEntries = std::vector<ColumnEntry>;

class AclImageMaker {
public:
    explicit AclImageMaker(AclEntries entries);
    // Enough for any place.
    std::size_t bytes() const;
    // Fills zeroed bytes behind their header. The compiled forms begin where lines of the cache do.
    void write(Image *at) const;

private:
    AclEntries entries_;
    ColumnEntries ip_, udp_, ipv6_;
};

// Reads what the image holds; false when a chain leaves it or has another length than it says.
bool readAclImage(const Bytes &image, AclEntries *entries);
// Whether the image is, byte for byte, the one that its entries make.
bool isWholeAclImage(const Bytes &image);

// One chain of a list, to be edited; the other one stays as it is.
template <class Entry, std::vector<Entry> AclEntries::*chain>
class AclDraft : public DraftOf<Entry> {
public:
    explicit AclDraft(const Bytes &image) {
        if (image) readAclImage(image, &list_);
        this->items.swap(list_.*chain);
    }
    std::uint32_t entries() const override {
        return static_cast<std::uint32_t>(this->items.size() + list_.ip.size() + list_.ipv6.size());
    }
    std::size_t bytes() const override { return AclImageMaker(whole()).bytes(); }
    void write(Image *at) const override { AclImageMaker(whole()).write(at); }

private:
    AclEntries whole() const {
        AclEntries all = list_;
        all.*chain = this->items;
        return all;
    }
    AclEntries list_;  // the chain that is edited is empty here
};
using IpDraft = AclDraft<zelAclIpEntry, &AclEntries::ip>;
using Ipv6Draft = AclDraft<zelAclIpv6Entry, &AclEntries::ipv6>;

extern const ListOperations ipOperations, ipv6Operations;

}  // namespace zel::aclmgr
