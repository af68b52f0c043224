// The first match of a prefix list, in the order of sequence numbers, without walking the list.
//
// Whatever entry of the tree can accept a query names a prefix that covers it and is not longer than it. These lie on
// one way from the longest of them up, so the check finds that one and follows the links to the shorter ones; of all
// conditions on that way that accept the query's length, the one with the lowest sequence number decides.
//
// Deliberate oddities. Of the entries outside the tree only the first that matches counts, whatever the length of the
// query. Equal sequence numbers keep the candidate that was found first: chain before tree, longer before shorter
// prefix, a node before its extra conditions. Extra conditions are tried also where the node's own failed. A prefix
// that is marked deleted hides the shorter ones when it is the longest that covers the query, and is passed over
// otherwise. Bounds count as written: with `ge` alone, also lengths below the entry's own.
//
// The index leads most of the way down, often all of it. The rest tests key bits only; that the prefix it ends at
// covers the query is found by one comparison at the end, whose first differing bit also says how short a prefix must
// be to cover it. Bits grow on the way down and prefix lengths shrink on the way up, which is checked, so no links,
// whatever they are, make a walk longer than an address has bits; the chain is walked upward in the image.
#include "policy/prefix_match.h"

#include "policy/tree_reader.h"

namespace zel::policy {
namespace {

constexpr std::uint32_t deny = 1;

// The best so far of the conditions that accept the query.
struct Candidate {
    std::uint32_t sequence = UINT32_MAX;  // beyond all
    std::uint32_t action = deny;
    const std::atomic<std::uint32_t> *hits = nullptr;

    template <class Condition>
    void offer(const Condition &condition) {
        const std::uint32_t offered = readOnce(condition.sequence);
        if (offered >= sequence) return;
        sequence = offered;
        action = readOnce(condition.action);
        hits = &condition.hits;
    }
    // Readers at the same time may lose counts: an exact one would cost more than the rest of the check.
    std::uint32_t decide() const {
        if (hits == nullptr) return deny;
        auto *count = const_cast<std::atomic<std::uint32_t> *>(hits);
        count->store(count->load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return action;
    }
};

template <std::uint32_t Width>
class Match {
public:
    Match(const Bytes &image, Key<Width> address, std::uint32_t length)
        : bytes_(image), image_(inside<PrefixImage>(image, 0)), key_(address), length_(length) {}

    std::uint32_t verdict() {
        const Candidate candidate = best();
        if (candidate.hits == nullptr && image_ != nullptr && readOnce(image_->header.entries) == 0) return 0;
        return candidate.decide();
    }
    // The sequence number of the entry that decides, 0 when none does; counts no hit.
    std::uint32_t sequence() {
        const Candidate candidate = best();
        return candidate.hits != nullptr ? candidate.sequence : 0;
    }

private:
    Candidate best() {
        Candidate candidate;
        if (image_ == nullptr || readOnce(image_->width) != Width) return candidate;
        if (const PrefixEntry *entry = firstInChain(readOnce(image_->chain))) candidate.offer(*entry);
        for (const PrefixNode *node = length_ <= 8 * Width ? longest() : nullptr; node != nullptr; node = above(*node))
            if (!isMarked(*node)) offerConditions(candidate, node->entry);
        return candidate;
    }

    // A record with the address and mask behind it.
    template <class T>
    const T *recordAt(Offset at) const {
        const bool isPlace = at != 0 && at % alignof(T) == 0;
        return isPlace ? static_cast<const T *>(inside(bytes_, at, strideOf(sizeof(T), Width))) : nullptr;
    }

    const PrefixEntry *firstInChain(Offset at) const {
        const auto *entry = recordAt<PrefixEntry>(at);
        while (entry != nullptr && !key_.isUnder(addressOf(*entry), addressOf(*entry) + Width)) {
            const Offset next = readOnce(entry->next);
            entry = next > at ? recordAt<PrefixEntry>(next) : nullptr;
            at = next;
        }
        return entry;
    }

    bool isMarked(const PrefixNode &node) const {
        const std::uint32_t number = readOnce(node.number);
        return number < nodeRoom_ && (readOnce(nodes_[number].rtn_flags) & ZEL_RADIX_DELETED) != 0;
    }

    // Where the index leads: to a node, to a prefix, or nowhere, when no prefix covers anything there.
    Offset placeInIndex() const {
        const std::uint32_t from = readOnce(image_->indexFrom), bits = readOnce(image_->indexBits);
        if (bits == 0 || bits > mostIndexBits || from + bits > 8 * Width) return 0;
        const auto *index = inside<Offset>(bytes_, readOnce(image_->index), std::size_t{1} << bits);
        return index != nullptr ? readOnce(index[key_.bits(from, bits)]) : 0;
    }

    // The last node on the way from there to the query, or the first that is longer.
    std::uint32_t descend(std::uint32_t number) const {
        std::uint32_t last = 0, least = 0;
        while (number != 0 && number < nodeRoom_) {
            last = number;
            const zelRadixNode &node = nodes_[number];
            const std::uint32_t bit = readOnce(node.rtn_bit);
            if (bit >= length_ || bit < least) break;
            least = bit + 1;
            number = key_.bit(bit) ? readOnce(node.rtn_right) : readOnce(node.rtn_left);
        }
        return last;
    }

    const PrefixNode *above(const PrefixNode &node) const {
        const auto *next = recordAt<PrefixNode>(readOnce(node.entry.next));
        return next != nullptr && readOnce(next->entry.length) < readOnce(node.entry.length) ? next : nullptr;
    }
    const PrefixNode *notLonger(const PrefixNode *node, std::uint32_t than) const {
        while (node != nullptr && readOnce(node->entry.length) > than) node = above(*node);
        return node;
    }

    // The longest prefix that covers the query and is not longer than it; null when that one is marked deleted.
    const PrefixNode *longest() {
        const Offset place = placeInIndex();
        if (place == 0) return nullptr;
        nodeRoom_ = readOnce(image_->nodeRoom);
        nodes_ = inside<zelRadixNode>(bytes_, readOnce(image_->nodes), nodeRoom_);
        if (nodes_ == nullptr) return nullptr;
        const auto *node = recordAt<PrefixNode>(leadsToNode(place) ? nearestTo(descend(nodeOf(place))) : place);
        node = notLonger(node, length_);
        if (node != nullptr) node = notLonger(node, key_.common(addressOf(node->entry)));
        return node != nullptr && !isMarked(*node) ? node : nullptr;
    }
    Offset nearestTo(std::uint32_t number) const {
        const auto *nearest = inside<Offset>(bytes_, readOnce(image_->nearest), nodeRoom_);
        return nearest != nullptr && number != 0 ? readOnce(nearest[number]) : 0;
    }

    void offerConditions(Candidate &candidate, const PrefixEntry &entry) const {
        const std::uint8_t *address = addressOf(entry);
        const bool isDefault = Key<Width>::isZero(address) && Key<Width>::isZero(address + Width);
        const std::uint32_t prefix = readOnce(entry.length);
        const auto accepts = [&](const auto &condition) {
            return acceptsLength(isDefault, length_, prefix, readOnce(condition.ge), readOnce(condition.le), 8 * Width);
        };
        if (accepts(entry)) candidate.offer(entry);
        const std::uint32_t extras = readOnce(entry.extras);
        if (extras == 0) return;
        const auto *extra = inside<ExtraCondition>(bytes_, readOnce(entry.extra), extras);
        for (std::uint32_t i = 0; extra != nullptr && i < extras; ++i)
            if (accepts(extra[i])) candidate.offer(extra[i]);
    }

    const Bytes bytes_;
    const PrefixImage *image_;
    const Key<Width> key_;
    const std::uint32_t length_;
    std::uint32_t nodeRoom_ = 0;
    const zelRadixNode *nodes_ = nullptr;
};

bool hasEntries(const ListNode *list) {
    return list != nullptr && readOnce(list->magic) == ListNode::validMagic &&
           list->image.load(std::memory_order_relaxed) != 0;
}

template <std::uint32_t Width>
std::uint32_t checkList(const ListNode *list, Kind kind, Key<Width> address, std::uint32_t length) {
    if (!hasEntries(list)) return 0;
    const Bytes image = imageOf(list, kind);
    return image ? Match<Width>(image, address, length).verdict() : deny;
}

template <std::uint32_t Width>
std::uint32_t decidingEntry(const ListNode *list, Kind kind, Key<Width> address, std::uint32_t length) {
    const Bytes image = imageOf(list, kind);
    return image ? Match<Width>(image, address, length).sequence() : 0;
}

}  // namespace

template <std::uint32_t Width>
std::uint32_t checkPrefix(const Bytes &image, Key<Width> address, std::uint32_t length) {
    return Match<Width>(image, address, length).verdict();
}
template std::uint32_t checkPrefix(const Bytes &image, Key<4> address, std::uint32_t length);
template std::uint32_t checkPrefix(const Bytes &image, Key<16> address, std::uint32_t length);

std::uint32_t checkPrefix(const ListNode *list, Key<4> address, std::uint32_t length) {
    return checkList(list, Kind::prefix4, address, length);
}

std::uint32_t checkPrefix(const ListNode *list, Key<16> address, std::uint32_t length) {
    return checkList(list, Kind::prefix6, address, length);
}

std::uint32_t checkPrefix(const ListNode *list, const std::uint8_t *address, std::uint32_t length, int family) {
    if (address != nullptr && family == ZEL_POLICY_IPV4) return checkPrefix(list, Key<4>(address), length);
    if (address != nullptr && family == ZEL_POLICY_IPV6) return checkPrefix(list, Key<16>(address), length);
    return hasEntries(list) ? deny : 0;
}

std::uint32_t entryOfPrefix(const ListNode *list, const std::uint8_t *address, std::uint32_t length, int family) {
    if (address == nullptr) return 0;
    return family == ZEL_POLICY_IPV4   ? decidingEntry(list, Kind::prefix4, Key<4>(address), length)
           : family == ZEL_POLICY_IPV6 ? decidingEntry(list, Kind::prefix6, Key<16>(address), length)
                                       : 0;
}

}  // namespace zel::policy
