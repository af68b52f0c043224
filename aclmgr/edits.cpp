// Edits that are alike for all kinds of list: the list is read back, changed, and put in place whole.
#include <algorithm>
#include <cstring>

#include "aclmgr/census.h"
#include "aclmgr/draft.h"

namespace zel::aclmgr {
namespace {

// One list under the write lock, its entries read back.
class Edit {
public:
    Edit(const zelAclMgr &manager, zelAclMgrKind kind, const char *name)
        : change_(manager), kind_(kind), row_(rowOf(kind)), name_(name) {
        list_ = change_.find(kind, name);
        if (list_ != nullptr && row_->operations != nullptr) draft_ = row_->operations->read(imageOf(*list_));
    }

    // 0 when there is such a list; one chain of an access list is none while only the other one has entries.
    std::uint32_t missing() const {
        if (row_ == nullptr || name_ == nullptr || *name_ == 0) return codeValueRange;
        const bool isThere = list_ != nullptr && draft_ != nullptr && (draft_->count() != 0 || draft_->entries() == 0);
        return isThere ? 0 : row_->listMissing;
    }
    Draft &draft() const { return *draft_; }
    std::uint32_t lastSequence() const { return row_->operations->lastSequence; }
    std::uint32_t finish() { return change_.set(kind_, name_, *draft_) == 0 ? 0 : codeNoMemory; }
    void remove() { change_.remove(*list_); }

private:
    Change change_;
    zelAclMgrKind kind_;
    const KindRow *row_;
    const char *name_;
    ListNode *list_ = nullptr;
    std::unique_ptr<Draft> draft_;
};

std::uint32_t removeList(const zelAclMgr &manager, zelAclMgrKind kind, const char *name) {
    Edit edit(manager, kind, name);
    if (const std::uint32_t code = edit.missing()) return code;
    edit.draft().clear();
    if (edit.draft().entries() != 0) return edit.finish();
    edit.remove();
    return 0;
}

std::uint32_t removeEntry(const zelAclMgr &manager, zelAclMgrKind kind, const char *name, std::uint32_t sequence) {
    Edit edit(manager, kind, name);
    if (const std::uint32_t code = edit.missing()) return code;
    Draft &draft = edit.draft();
    std::size_t index = 0;
    while (index < draft.count() && draft.sequenceAt(index) != sequence) ++index;
    if (index == draft.count()) return codeSequenceMissing;
    draft.erase(index);
    return edit.finish();
}

std::uint32_t resequence(const zelAclMgr &manager, zelAclMgrKind kind, const char *name, std::uint32_t first,
                         std::uint32_t step) {
    Edit edit(manager, kind, name);
    if (const std::uint32_t code = edit.missing()) return code;
    Draft &draft = edit.draft();
    const std::uint64_t count = draft.count(), last = count != 0 ? first + (count - 1) * step : first;
    if (first == 0 || step == 0 || last > edit.lastSequence()) return codeSequenceRange;
    for (std::size_t i = 0; i < count; ++i)
        draft.setSequence(i, static_cast<std::uint32_t>(first + i * std::uint64_t{step}));
    return edit.finish();
}

}  // namespace
}  // namespace zel::aclmgr

using namespace zel::aclmgr;

uint32_t zelAclMgrRemoveList(zelAclMgr *manager, zelAclMgrKind kind, const char *name) {
    return changing(manager, true, codeNoMemory, [&](const zelAclMgr &given) { return removeList(given, kind, name); });
}

uint32_t zelAclMgrRemoveEntry(zelAclMgr *manager, zelAclMgrKind kind, const char *name, uint32_t sequence) {
    return changing(manager, true, codeNoMemory,
                    [&](const zelAclMgr &given) { return removeEntry(given, kind, name, sequence); });
}

uint32_t zelAclMgrResequence(zelAclMgr *manager, zelAclMgrKind kind, const char *name, uint32_t first, uint32_t step) {
    return changing(manager, true, codeNoMemory,
                    [&](const zelAclMgr &given) { return resequence(given, kind, name, first, step); });
}

int zelAclMgrGetNames(zelAclMgr *manager, zelAclMgrKind kind, char (*names)[ZEL_POLICY_NAME + 1], int capacity) {
    const KindRow *row = rowOf(kind);
    const bool isComplete = row != nullptr && (names != nullptr || capacity <= 0);
    return reading(manager, isComplete, [&](const zelAclMgr &given) {
        const Reading look(given);
        std::vector<ListNode *> lists =
            countTree(given.tables->trees[static_cast<std::size_t>(row->kind)], row->kind).lists;
        std::sort(lists.begin(), lists.end(),
                  [](const ListNode *a, const ListNode *b) { return memcmp(a->name, b->name, sizeof a->name) < 0; });
        for (std::size_t i = 0; i < lists.size() && static_cast<int>(i) < capacity; ++i)
            memcpy(names[i], lists[i]->name, sizeof lists[i]->name);
        return static_cast<int>(lists.size());
    });
}
