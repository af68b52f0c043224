// The entries of one list outside the segment, to be changed and made into an image again.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "aclmgr/store.h"

namespace zel::aclmgr {

// What edits that do not care about the kind of list need of it. Entries stand in the order of their sequence numbers.
class Draft : public ImageBuilder {
public:
    virtual std::size_t count() const = 0;
    virtual std::uint32_t sequenceAt(std::size_t index) const = 0;
    virtual void setSequence(std::size_t index, std::uint32_t sequence) = 0;
    virtual void erase(std::size_t index) = 0;
    virtual void clear() = 0;
};

// Codes for what is alike in all kinds of list.
inline constexpr std::uint32_t codeNoMemory = 0x3900001c, codeSequenceExists = 0x39000029,
                               codeSequenceMissing = 0x3900002a, codeSequenceRange = 0x3900002d,
                               codeValueRange = 0x3900002f;

// The frame of every public call. Where there is no manager, or something else is null that must not be, the answer is
// that of a bad value; memory that a container does not get is answered too, since callers in C catch nothing.
template <class Result, class Work>
Result answer(const zelAclMgr *manager, bool isComplete, Result badValue, Result noMemory, const Work &work, int line) {
    if (!isManager(manager, line) || !isComplete) return badValue;
    try {
        return work(*manager);
    } catch (const std::bad_alloc &) {
        return noMemory;
    }
}
template <class Work>
std::uint32_t changing(const zelAclMgr *manager, bool isComplete, std::uint32_t noMemory, const Work &work,
                       int line = __builtin_LINE()) {
    const bool mayWrite = manager == nullptr || manager->mayWrite;
    return answer(manager, isComplete && mayWrite, codeValueRange, noMemory, work, line);
}
template <class Work>
int reading(const zelAclMgr *manager, bool isComplete, const Work &work, int line = __builtin_LINE()) {
    return answer(manager, isComplete, -1, -1, work, line);
}

// Most kinds keep their entries in a vector; Entry has a member `sequence`, as wide as sequence numbers of that kind.
template <class Entry>
class DraftOf : public Draft {
public:
    static constexpr std::uint32_t lastSequence = static_cast<decltype(Entry::sequence)>(-1);

    std::vector<Entry> items;

    std::uint32_t entries() const override { return static_cast<std::uint32_t>(items.size()); }
    std::size_t count() const override { return items.size(); }
    std::uint32_t sequenceAt(std::size_t index) const override { return items[index].sequence; }
    void setSequence(std::size_t index, std::uint32_t sequence) override {
        items[index].sequence = static_cast<decltype(Entry::sequence)>(sequence);
    }
    void erase(std::size_t index) override { items.erase(items.begin() + static_cast<std::ptrdiff_t>(index)); }
    void clear() override { items.clear(); }

    // Puts an entry where its sequence number belongs; 0 stands for the next multiple of 5 behind the last. The code of
    // why not, or 0.
    std::uint32_t add(Entry entry) {
        if (entry.sequence == 0) {
            const std::uint64_t next = items.empty() ? 5 : (std::uint64_t{items.back().sequence} / 5 + 1) * 5;
            if (next > lastSequence) return codeSequenceRange;
            entry.sequence = static_cast<decltype(Entry::sequence)>(next);
        }
        const auto place = std::lower_bound(items.begin(), items.end(), entry,
                                            [](const Entry &a, const Entry &b) { return a.sequence < b.sequence; });
        if (place != items.end() && place->sequence == entry.sequence) return codeSequenceExists;
        items.insert(place, entry);
        return 0;
    }
};

// What a kind of list supplies: one constant object for each, named in the table of aclmgr/kinds.cpp.
struct ListOperations {
    // The entries that the image holds; none in an empty one.
    std::unique_ptr<Draft> (*read)(const Bytes &image);
    // Whether everything in the image leads to a place inside it, or to what exists; null: the header is all.
    bool (*isWhole)(const Bytes &image);
    // Drops what the image refers to outside itself, before its block is freed; null: nothing.
    void (*drop)(const Bytes &image);
    std::uint32_t lastSequence;
};

// What the codes of a kind of list are, and where its lists stand.
struct KindRow {
    Kind kind;
    std::uint32_t listMissing, noMemory, nameTooLong;
    const ListOperations *operations;  // null: nothing makes lists of this kind yet
};
// Of the images of a kind; null when there are none, or the kind's images are no business of these calls.
const ListOperations *operationsOf(Kind kind);

}  // namespace zel::aclmgr
