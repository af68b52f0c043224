// A radix tree beside its model: a sorted map from the text of a key's bits to what the tree must hold there. The order
// of these texts is the order of the tree, a prefix before what it covers. With versions on, changes are numbered.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"

namespace zel::test {

using RadixEntries = std::vector<zelRadixEntry *>;

// The key lies in a block of exactly its size, so that reading one byte too many is seen by the sanitizers.
struct RadixRecord {
    RadixRecord(const std::vector<uint8_t> &bytes, uint32_t bitlen) : bits(bitlen) {
        key.reset(new uint8_t[(bits + 7) / 8]);
        std::copy_n(bytes.begin(), (bits + 7) / 8, key.get());
        for (uint32_t i = 0; i < bits; ++i) text += bytes[i / 8] & (0x80 >> (i % 8)) ? '1' : '0';
        entry.rth_addr = key.get();
    }
    zelRadixEntry entry{};  // first
    uint32_t bits;
    std::unique_ptr<uint8_t[]> key;
    std::string text;
};

inline int collect(zelRadixEntry *entry, void *all) {
    static_cast<RadixEntries *>(all)->push_back(entry);
    return 0;
}

class RadixModel {
public:
    struct State {
        std::unique_ptr<RadixRecord> record;
        bool isMarked = false;
        uint64_t change = 0;  // 0: in no list
        uint32_t version = 0;
    };
    struct Walk {
        zelRadicalWalk *handle;
        uint64_t seen;
    };
    using Place = std::map<std::string, State>::iterator;

    explicit RadixModel(uint32_t maxbits)
        : tree(zelRadixCreate("model", static_cast<uint16_t>(maxbits), nullptr, nullptr,
                              [](zelRadixEntry *entry) { handedOver.push_back(entry); })) {}
    ~RadixModel() {
        for (Walk &walk : walks) zelRadicalWalkDestructor(walk.handle);
        zelRadixDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    zelRadixEntry *insert(std::unique_ptr<RadixRecord> record) {
        State &state = states[record->text];
        zelRadixEntry *stands = zelRadixInsert(tree, &record->entry, record->bits);
        EXPECT_EQ(stands, state.record && !state.isMarked ? &state.record->entry : &record->entry);
        if (stands != &record->entry) return stands;
        if (state.record) expectedHandedOver.push_back(&state.record->entry);
        state.record = std::move(record);
        state.isMarked = false;
        note(state);
        return stands;
    }

    void remove(Place at) {
        State &state = at->second;
        zelRadixRemove(tree, &state.record->entry);
        if (!tree->rtt_versioning) return forget(at);
        if (!state.isMarked) note(state);
        state.isMarked = true;
    }

    void append(Place at) {
        if (!tree->rtt_versioning) return;
        zelRadicalAppendToChangeList(tree, &at->second.record->entry);
        note(at->second);
    }

    void nextVersion() {
        ++open;
        EXPECT_EQ(zelRadicalNextVersion(tree), open);
        letGo();
    }

    void startOrEndWalk(size_t which) {
        if (walks.size() < 3) return walks.push_back({zelRadicalWalkConstructor(tree), count});
        zelRadicalWalkDestructor(walks[which].handle);
        walks.erase(walks.begin() + static_cast<long>(which));
        letGo();
    }

    void walkOn(size_t which, uint32_t max) {
        if (which >= walks.size()) return;
        Walk &walk = walks[which];
        RadixEntries expected, visited;
        for (auto at = changes.upper_bound(walk.seen); at != changes.end(); ++at) {
            if (at->second->second.version == open || (max && expected.size() == max)) break;
            expected.push_back(&at->second->second.record->entry);
            walk.seen = at->first;
        }
        EXPECT_EQ(zelRadicalWalkChangeList(walk.handle, collect, &visited, max), expected.size());
        EXPECT_EQ(visited, expected);
        letGo();
    }

    // The entry of the longest prefix of the text.
    const State *cover(std::string text) const {
        for (auto at = states.upper_bound(text); at != states.begin(); at = states.upper_bound(text)) {
            --at;
            if (text.starts_with(at->first)) return &at->second;
            const auto same = std::mismatch(text.begin(), text.end(), at->first.begin(), at->first.end());
            text.resize(static_cast<size_t>(same.first - text.begin()));
        }
        return nullptr;
    }
    const State *coverAbove(std::string text) const {
        if (text.empty()) return nullptr;
        text.pop_back();
        return cover(text);
    }
    static zelRadixEntry *entryOf(const State *state, bool hidesWhenMarked) {
        return !state || (hidesWhenMarked && state->isMarked) ? nullptr : &state->record->entry;
    }

    void checkLookUps(const RadixRecord &probe) {
        zelRadixEntry *best = entryOf(cover(probe.text), true), *prev = nullptr;
        const auto at = states.find(probe.text);
        ASSERT_EQ(zelRadixGetBest(tree, probe.key.get(), probe.bits), best);
        ASSERT_EQ(zelRadixGetExact(tree, probe.key.get(), probe.bits),
                  at == states.end() ? nullptr : entryOf(&at->second, true));
        ASSERT_EQ(zelRadixGetBestAndPrev(tree, probe.key.get(), probe.bits, &prev), best);
        ASSERT_EQ(prev, best ? zelRadixGetNextBest(tree, best) : nullptr);
    }

    void checkAncestors(const State &state) {
        const State *shorter = coverAbove(state.record->text);
        ASSERT_EQ(zelRadixGetParent(tree, &state.record->entry), entryOf(shorter, false));
        ASSERT_EQ(zelRadixGetLessSpecific(tree, nullptr, state.record->entry.rtn), entryOf(shorter, false));
        ASSERT_EQ(zelRadixGetNextBest(tree, &state.record->entry), entryOf(shorter, true));
    }

    void checkSubTree(const RadixRecord &probe) {
        zelRadixNode *top = _zelRadixGetSubTree(tree, probe.key.get(), probe.bits);
        RadixEntries expected, visited;
        auto at = states.lower_bound(probe.text);
        ASSERT_EQ(top != nullptr, at != states.end() && at->first.starts_with(probe.text));
        if (!top) return;
        for (; at != states.end() && at->first.starts_with(probe.text); ++at)
            if (!at->second.isMarked) expected.push_back(&at->second.record->entry);
        zelRadixWalkSubTree(tree, top, collect, &visited);
        ASSERT_EQ(visited, expected);
    }

    void checkWhole(uint32_t since) {
        checkRadix(*tree);
        ASSERT_EQ(handedOver, expectedHandedOver);
        RadixEntries live, changed, next, walked, versions;
        for (auto &[text, state] : states) {
            ASSERT_EQ(state.record->bits, state.record->entry.rtn->rtn_bit);
            if (!state.isMarked) live.push_back(&state.record->entry);
            if (state.version > since) changed.push_back(&state.record->entry);
        }
        for (zelRadixEntry *e = nullptr; (e = zelRadixGetNext(tree, e)) != nullptr;) next.push_back(e);
        zelRadixWalk(tree, collect, &walked);
        zelRadixVersionWalk(tree, since, collect, &versions);
        ASSERT_EQ(next, live);
        ASSERT_EQ(walked, live);
        ASSERT_EQ(versions, changed);
    }

    zelRadix *tree;
    std::map<std::string, State> states;
    std::vector<Walk> walks;
    uint32_t open = 1;
    static inline RadixEntries handedOver;

private:
    void note(State &state) {
        changes.erase(state.change);
        state.change = tree->rtt_versioning ? ++count : 0;
        state.version = tree->rtt_versioning ? open : 0;
        if (state.change) changes[state.change] = states.find(state.record->text);
    }

    void forget(Place at) {
        changes.erase(at->second.change);
        states.erase(at);
    }

    // Marked entries whose version is closed, and that every walk has seen, leave the tree.
    void letGo() {
        uint64_t seen = UINT64_MAX;
        for (const Walk &walk : walks) seen = std::min(seen, walk.seen);
        for (auto at = changes.begin(); at != changes.end() && at->first <= seen;) {
            const Place place = (at++)->second;
            if (place->second.version == open) break;
            if (!place->second.isMarked) continue;
            expectedHandedOver.push_back(&place->second.record->entry);
            forget(place);
        }
    }

    std::map<uint64_t, Place> changes;
    uint64_t count = 0;
    RadixEntries expectedHandedOver;
};

}  // namespace zel::test
