// Building the image of a prefix list.
//
// A plan of the draft says how much room everything takes: entries of the same prefix side by side, entries for the
// chain, the bits of the index. Then the tree is built where it will be read. It asks for memory through a function
// that knows nothing of it, so the place to take from stands in a variable of the thread; blocks of nodes are told by
// their size and lie one behind the other, which is what lets checks find nodes by number alone. Once complete, the
// tree keeps no function of this process.
#include "aclmgr/prefix_image.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <tuple>

namespace zel::aclmgr {

using policy::ExtraCondition;
using policy::Offset;
using policy::PrefixEntry;
using policy::PrefixImage;
using policy::PrefixNode;
using policy::strideOf;

namespace {

using Entries = std::vector<const zelAclPrefixEntry *>;

constexpr std::uint32_t codeBounds = 0x3900001f, codeSequenceTaken = 0x39000025;

constexpr std::size_t slabBytes = ZEL_RADIX_SLAB * sizeof(zelRadixNode);
constexpr std::uint32_t indexSparseness = 3;  // at least 2^3 values of the index for a prefix

constexpr std::size_t aligned(std::size_t bytes) {
    return (bytes + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);
}

// Where the tree in the making takes its memory from. Its tables are of 2^n bytes, unlike its blocks of nodes.
struct Room {
    std::uint8_t *slabs, *tables;
};
thread_local Room room;
static_assert(!std::has_single_bit(slabBytes));

void *takeRoom(std::size_t bytes) {
    std::uint8_t *&place = bytes == slabBytes ? room.slabs : room.tables;
    std::uint8_t *taken = place;
    place += bytes;
    return taken;
}
void leaveRoom(void *) {}

// The tables that find the blocks of nodes: one for four blocks, and each that replaces it twice as large.
std::size_t tableBytes(std::size_t slabs) {
    std::size_t blocks = 4, bytes = 2 * blocks * sizeof(void *);
    for (; blocks < slabs; blocks *= 2) bytes += 4 * blocks * sizeof(void *);
    return bytes;
}

bool isPrefix(const zelAclPrefixEntry &entry, std::uint32_t width) {
    if (policy::lengthOfMask(entry.mask, width) == 255) return false;
    for (std::uint32_t i = 0; i < width; ++i)
        if ((entry.address[i] & ~entry.mask[i]) != 0) return false;
    return true;
}

template <class Condition>
void writeCondition(Condition &to, const zelAclPrefixEntry &from) {
    to.hits.store(from.hits, std::memory_order_relaxed);
    to.sequence = from.sequence;
    to.action = from.action;
    to.ge = from.ge;
    to.le = from.le;
}

bool isAlike(const zelAclPrefixEntry &a, const zelAclPrefixEntry &b) {
    return std::tie(a.sequence, a.action, a.ge, a.le) == std::tie(b.sequence, b.action, b.ge, b.le) &&
           memcmp(a.address, b.address, sizeof a.address) == 0 && memcmp(a.mask, b.mask, sizeof a.mask) == 0;
}

}  // namespace

class PrefixDraft::Plan {
public:
    Plan(const std::vector<zelAclPrefixEntry> &entries, std::uint32_t width) : width_(width) {
        sort(entries);
        place();
    }

    std::size_t bytes() const { return end_; }
    void write(PrefixImage &image) {
        image_ = &image;
        image.width = width_;
        room = {at<std::uint8_t>(nodes_), at<std::uint8_t>(tables_)};
        zelRadixInit(&image.tree, source, static_cast<std::uint16_t>(8 * width_), takeRoom, leaveRoom, nullptr);
        if (!chain_.empty()) writeChain();
        if (!prefixes_.empty()) writeTree();
        image.tree.rtt_alloc = nullptr;
        image.tree.rtt_free = nullptr;
    }

private:
    void sort(const std::vector<zelAclPrefixEntry> &entries) {
        Entries inTree;
        for (const zelAclPrefixEntry &entry : entries) (isPrefix(entry, width_) ? inTree : chain_).push_back(&entry);
        const auto isBefore = [this](const zelAclPrefixEntry *a, const zelAclPrefixEntry *b) {
            const int order = memcmp(a->address, b->address, width_);
            return order != 0 ? order < 0 : memcmp(a->mask, b->mask, width_) < 0;
        };
        std::stable_sort(inTree.begin(), inTree.end(), isBefore);
        for (const zelAclPrefixEntry *entry : inTree) {
            if (prefixes_.empty() || isBefore(prefixes_.back().front(), entry)) prefixes_.emplace_back();
            prefixes_.back().push_back(entry);
        }
        extras_ = inTree.size() - prefixes_.size();
    }

    Offset take(std::size_t bytes) {
        const std::size_t at = end_;
        end_ += aligned(bytes);
        return static_cast<Offset>(at);
    }
    void place() {
        const std::size_t prefixes = prefixes_.size(), slabs = (2 * prefixes + ZEL_RADIX_SLAB - 1) / ZEL_RADIX_SLAB;
        nodeRoom_ = static_cast<std::uint32_t>(slabs * ZEL_RADIX_SLAB);
        indexBits_ =
            std::min(static_cast<std::uint32_t>(std::bit_width(prefixes)) + indexSparseness, policy::mostIndexBits);
        end_ = aligned(sizeof(PrefixImage));
        nodes_ = take(slabs * slabBytes);
        tables_ = take(slabs != 0 ? tableBytes(slabs) : 0);
        nearest_ = take(nodeRoom_ * sizeof(Offset));
        index_ = take(prefixes != 0 ? sizeof(Offset) << indexBits_ : 0);
        records_ = take(prefixes * strideOf(sizeof(PrefixNode), width_));
        extra_ = take(extras_ * sizeof(ExtraCondition));
        firstInChain_ = take(chain_.size() * strideOf(sizeof(PrefixEntry), width_));
    }

    template <class T>
    T *at(Offset offset) const {
        return reinterpret_cast<T *>(reinterpret_cast<std::uint8_t *>(image_) + offset);
    }
    PrefixNode *recordOf(const zelRadixNode &node) const { return reinterpret_cast<PrefixNode *>(node.rtn_entry); }
    Offset offsetOf(const void *object) const {
        return static_cast<Offset>(static_cast<const std::uint8_t *>(object) -
                                   reinterpret_cast<const std::uint8_t *>(image_));
    }
    zelRadixNode &node(std::uint32_t number) const { return at<zelRadixNode>(nodes_)[number]; }

    void writeEntry(PrefixEntry &to, const zelAclPrefixEntry &from) const {
        writeCondition(to, from);
        to.length = policy::lengthOfMask(from.mask, width_);
        auto *bytes = reinterpret_cast<std::uint8_t *>(&to + 1);
        memcpy(bytes, from.address, width_);
        memcpy(bytes + width_, from.mask, width_);
    }

    void writeChain() {
        Offset place = image_->chain = firstInChain_;
        for (const zelAclPrefixEntry *entry : chain_) {
            auto &record = *at<PrefixEntry>(place);
            place += static_cast<Offset>(strideOf(sizeof record, width_));
            writeEntry(record, *entry);
            record.next = entry != chain_.back() ? place : 0;
        }
    }

    void writeTree() {
        image_->prefixes = static_cast<std::uint32_t>(prefixes_.size());
        image_->nodeRoom = nodeRoom_;
        image_->nodes = nodes_;
        image_->nearest = nearest_;
        image_->records = records_;
        Offset place = records_, extra = extra_;
        for (const Entries &entries : prefixes_) {
            writePrefix(*at<PrefixNode>(place), entries, extra);
            place += static_cast<Offset>(strideOf(sizeof(PrefixNode), width_));
        }
        linkUpward();
        width_ == 4 ? writeIndex<4>() : writeIndex<16>();
    }

    void writePrefix(PrefixNode &record, const Entries &entries, Offset &extra) {
        writeEntry(record.entry, *entries.front());
        record.entry.extras = static_cast<std::uint16_t>(entries.size() - 1);
        if (entries.size() > 1) record.entry.extra = extra;
        for (std::size_t i = 1; i < entries.size(); ++i) {
            writeCondition(*at<ExtraCondition>(extra), *entries[i]);
            extra += static_cast<Offset>(sizeof(ExtraCondition));
        }
        record.head.rth_addr = policy::addressOf(record.entry);
        zelRadixInsert(&image_->tree, &record.head, record.entry.length);
    }

    void linkUpward() {
        auto *nearest = at<Offset>(nearest_);
        for (std::uint32_t number = 1; number < image_->tree.rtt_fresh; ++number) {
            const zelRadixNode *above = &node(number);
            while (above->rtn_entry == nullptr && above->rtn_parent != 0) above = &node(above->rtn_parent);
            nearest[number] = above->rtn_entry != nullptr ? offsetOf(above->rtn_entry) : 0;
            PrefixNode *record = recordOf(node(number));
            if (record == nullptr) continue;
            const zelRadixEntry *shorter = zelRadixGetParent(&image_->tree, &record->head);
            record->number = number;
            record->entry.next = shorter != nullptr ? offsetOf(shorter) : 0;
        }
    }

    // The index goes by the bits behind those in which all prefixes of the tree agree. Records stand in the order of
    // their addresses, shorter prefixes first, so the longest that covers a value is the last to be written there.
    template <std::uint32_t Width>
    void writeIndex() {
        std::uint32_t top = image_->tree.rtt_root;
        while ((node(top).rtn_left == 0) != (node(top).rtn_right == 0)) top = node(top).rtn_left | node(top).rtn_right;
        const std::uint32_t from = std::min<std::uint32_t>(node(top).rtn_bit, 8 * Width - indexBits_);
        const std::uint32_t end = from + indexBits_;
        image_->index = index_;
        image_->indexFrom = static_cast<std::uint8_t>(from);
        image_->indexBits = static_cast<std::uint8_t>(indexBits_);
        for (std::uint32_t i = 0; i < prefixes_.size(); ++i) {
            const Offset place = records_ + i * static_cast<Offset>(strideOf(sizeof(PrefixNode), Width));
            const PrefixEntry &entry = at<PrefixNode>(place)->entry;
            const std::uint32_t length = std::clamp<std::uint32_t>(entry.length, from, end);
            Offset *slot = at<Offset>(index_);
            if (entry.length > from) slot += policy::Key<Width>(policy::addressOf(entry)).bits(from, indexBits_);
            std::fill_n(slot, std::size_t{1} << (end - length), entry.length < end ? place : behind(place, end));
        }
    }
    // What a prefix behind the bits of the index is found by: the highest node there.
    Offset behind(Offset place, std::uint32_t end) const {
        std::uint32_t number = at<PrefixNode>(place)->number;
        while (node(number).rtn_parent != 0 && node(node(number).rtn_parent).rtn_bit >= end)
            number = node(number).rtn_parent;
        const bool isLeaf = node(number).rtn_left == 0 && node(number).rtn_right == 0;
        return isLeaf ? place : policy::toNode(number);
    }

    const std::uint32_t width_;
    Entries chain_;
    std::vector<Entries> prefixes_;  // the entries of each
    std::size_t extras_ = 0, end_ = 0;
    std::uint32_t nodeRoom_ = 0, indexBits_ = 0;
    Offset nodes_ = 0, tables_ = 0, nearest_ = 0, index_ = 0, records_ = 0, extra_ = 0, firstInChain_ = 0;
    PrefixImage *image_ = nullptr;
};

std::size_t PrefixDraft::bytes() const {
    return Plan(items, width_).bytes();
}

void PrefixDraft::write(Image *at) const {
    Plan(items, width_).write(*reinterpret_cast<PrefixImage *>(at));
}

std::uint32_t PrefixDraft::take(zelAclPrefixEntry entry) {
    const std::uint32_t bits = 8 * width_;
    if (entry.ge > bits || entry.le > bits || (entry.le != 0 && entry.ge > entry.le)) return codeBounds;
    memset(entry.address + width_, 0, sizeof entry.address - width_);
    memset(entry.mask + width_, 0, sizeof entry.mask - width_);
    entry.hits = 0;
    const std::uint32_t code = add(entry);
    return code == codeSequenceExists ? codeSequenceTaken : code;
}

void PrefixDraft::keepHits(const PrefixDraft &before) {
    auto old = before.items.begin();
    for (zelAclPrefixEntry &entry : items) {
        while (old != before.items.end() && old->sequence < entry.sequence) ++old;
        if (old != before.items.end() && isAlike(*old, entry)) entry.hits = old->hits;
    }
}

}  // namespace zel::aclmgr
