// Reading an image of a prefix list back into entries, and finding whether it is whole. The segment may hold anything,
// so nothing is followed before it is known to be inside the image.
#include <algorithm>
#include <bit>
#include <cstring>

#include "aclmgr/prefix_image.h"
#include "policy/tree_reader.h"

namespace zel::aclmgr {

using policy::ExtraCondition;
using policy::inside;
using policy::Offset;
using policy::PrefixEntry;
using policy::PrefixImage;
using policy::PrefixNode;
using policy::readOnce;
using policy::strideOf;

namespace {

template <class Condition>
zelAclPrefixEntry conditionOf(const Condition &from) {
    zelAclPrefixEntry entry{};
    entry.sequence = from.sequence;
    entry.action = from.action;
    entry.ge = from.ge;
    entry.le = from.le;
    entry.hits = from.hits.load(std::memory_order_relaxed);
    return entry;
}

// An image whose parts were found where they must be; null members where it has none or they were not.
class PrefixReader {
public:
    PrefixReader(const Bytes &image, std::uint32_t width)
        : bytes_(image), image_(inside<PrefixImage>(image, 0)), width_(width) {
        if (image_ == nullptr || readOnce(image_->width) != width) return;
        prefixes_ = readOnce(image_->prefixes);
        nodeRoom_ = readOnce(image_->nodeRoom);
        if (prefixes_ > image.bytes / sizeof(PrefixNode)) return;
        records_ =
            recordAt(readOnce(image_->records), prefixes_ * strideOf(sizeof(PrefixNode), width_), alignof(PrefixNode));
        nodes_ = inside<zelRadixNode>(bytes_, readOnce(image_->nodes), nodeRoom_);
        nearest_ = inside<Offset>(bytes_, readOnce(image_->nearest), nodeRoom_);
        isUsable_ = records_ != nullptr && nodes_ != nullptr && nearest_ != nullptr;
    }

    // Visits no more entries than the list has; whether these were all.
    template <class Visit>
    bool eachEntry(Visit visit) const {
        if (!isUsable_) return false;
        std::uint32_t left = readOnce(image_->header.entries);
        if (left > PrefixDraft::lastSequence) return false;
        for (std::uint32_t i = 0; i < prefixes_; ++i)
            if (!visitPrefix(record(i).entry, left, visit)) return false;
        Offset at = readOnce(image_->chain);
        while (at != 0) {
            const auto *entry = reinterpret_cast<const PrefixEntry *>(
                recordAt(at, strideOf(sizeof(PrefixEntry), width_), alignof(PrefixEntry)));
            if (entry == nullptr || left-- == 0) return false;
            visit(*entry, *entry);
            at = readOnce(entry->next);
        }
        return left == 0;
    }

    bool isTreeWhole() const {
        if (!isUsable_) return false;
        const std::uint32_t fresh = std::max(readOnce(image_->tree.rtt_fresh), 1u);
        if (prefixes_ == 0) return readOnce(image_->tree.rtt_root) == 0;
        if (fresh > nodeRoom_) return false;
        std::uint32_t withEntry = 0;
        for (std::uint32_t number = 1; number < fresh; ++number) {
            if (!isNodeWhole(number, fresh)) return false;
            withEntry += nodes_[number].rtn_entry != nullptr;
        }
        return withEntry == prefixes_ && isIndexWhole(fresh);
    }

private:
    const std::uint8_t *recordAt(Offset at, std::size_t bytes, std::size_t alignment) const {
        return at % alignment == 0 ? static_cast<const std::uint8_t *>(inside(bytes_, at, bytes)) : nullptr;
    }
    const PrefixNode &record(std::uint32_t i) const {
        return *reinterpret_cast<const PrefixNode *>(records_ + i * strideOf(sizeof(PrefixNode), width_));
    }
    // The record of that offset among the prefixes, null when it is none of them.
    const PrefixNode *prefixAt(Offset at) const {
        const std::size_t stride = strideOf(sizeof(PrefixNode), width_), from = at - readOnce(image_->records);
        return from % stride == 0 && from / stride < prefixes_ ? &record(static_cast<std::uint32_t>(from / stride))
                                                               : nullptr;
    }

    template <class Visit>
    bool visitPrefix(const PrefixEntry &entry, std::uint32_t &left, Visit visit) const {
        const std::uint32_t extras = readOnce(entry.extras);
        const auto *extra = inside<ExtraCondition>(bytes_, readOnce(entry.extra), extras);
        if (extra == nullptr || extras >= left) return false;
        left -= extras + 1;
        visit(entry, entry);
        for (std::uint32_t i = 0; i < extras; ++i) visit(entry, extra[i]);
        return true;
    }

    Offset offsetOf(const zelRadixEntry *head) const {
        return static_cast<Offset>(reinterpret_cast<std::uintptr_t>(head) -
                                   reinterpret_cast<std::uintptr_t>(bytes_.begin));
    }
    bool isChildWhole(std::uint32_t child, std::uint32_t number, std::uint32_t fresh) const {
        return child == 0 ||
               (child < fresh && nodes_[child].rtn_parent == number && nodes_[child].rtn_bit > nodes_[number].rtn_bit);
    }
    // Links in both directions, the record, and the shortcuts upward.
    bool isNodeWhole(std::uint32_t number, std::uint32_t fresh) const {
        const zelRadixNode &node = nodes_[number];
        if (node.rtn_parent >= fresh || !isChildWhole(node.rtn_left, number, fresh) ||
            !isChildWhole(node.rtn_right, number, fresh))
            return false;
        if (node.rtn_parent == 0 && number != image_->tree.rtt_root) return false;
        const Offset above = node.rtn_parent != 0 ? nearest_[node.rtn_parent] : 0;
        if (node.rtn_entry == nullptr) return node.rtn_left != 0 && node.rtn_right != 0 && nearest_[number] == above;
        const Offset at = offsetOf(node.rtn_entry);
        const PrefixNode *record = prefixAt(at);
        return record != nullptr && &record->head == node.rtn_entry && nearest_[number] == at &&
               record->number == number && record->entry.next == above && record->head.rtn == &node &&
               record->entry.length == node.rtn_bit && record->head.rth_key == policy::addressOf(record->entry);
    }
    bool isIndexWhole(std::uint32_t fresh) const {
        const std::uint32_t bits = image_->indexBits;
        const auto *index =
            bits <= policy::mostIndexBits ? inside<Offset>(bytes_, image_->index, std::size_t{1} << bits) : nullptr;
        if (index == nullptr || image_->indexFrom + bits > 8 * width_) return false;
        return std::all_of(index, index + (std::size_t{1} << bits), [&](Offset place) {
            return place == 0 ||
                   (policy::leadsToNode(place) ? policy::nodeOf(place) - 1 < fresh - 1 : prefixAt(place) != nullptr);
        });
    }

    const Bytes bytes_;
    const PrefixImage *image_;
    const std::uint32_t width_;
    bool isUsable_ = false;
    std::uint32_t prefixes_ = 0, nodeRoom_ = 0;
    const std::uint8_t *records_ = nullptr;
    const zelRadixNode *nodes_ = nullptr;
    const Offset *nearest_ = nullptr;
};

template <int family>
std::unique_ptr<Draft> readFamily(const Bytes &image) {
    return readPrefixes(image, family);
}

}  // namespace

std::unique_ptr<PrefixDraft> readPrefixes(const Bytes &image, int family) {
    auto draft = std::make_unique<PrefixDraft>(family);
    const std::uint32_t width = policy::widthOf(family);
    PrefixReader(image, width).eachEntry([&](const PrefixEntry &prefix, const auto &condition) {
        zelAclPrefixEntry &entry = draft->items.emplace_back(conditionOf(condition));
        memcpy(entry.address, policy::addressOf(prefix), width);
        memcpy(entry.mask, policy::addressOf(prefix) + width, width);
    });
    std::stable_sort(draft->items.begin(), draft->items.end(),
                     [](const zelAclPrefixEntry &a, const zelAclPrefixEntry &b) { return a.sequence < b.sequence; });
    return draft;
}

bool isWholePrefixes(const Bytes &image) {
    const auto *header = inside<PrefixImage>(image, 0);
    if (header == nullptr) return false;
    const PrefixReader reader(image, header->header.kind == Kind::prefix6 ? 16 : 4);
    return reader.eachEntry([](const auto &, const auto &) {}) && reader.isTreeWhole();
}

const ListOperations prefix4Operations{readFamily<ZEL_POLICY_IPV4>, isWholePrefixes, nullptr,
                                       PrefixDraft::lastSequence};
const ListOperations prefix6Operations{readFamily<ZEL_POLICY_IPV6>, isWholePrefixes, nullptr,
                                       PrefixDraft::lastSequence};

}  // namespace zel::aclmgr
