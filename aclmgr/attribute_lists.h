// AS-path lists and community lists outside the segment, and as images.
#pragma once

#include <memory>
#include <vector>

#include "aclmgr/draft.h"
#include "policy/attribute_layout.h"
#include "policy/expression.h"

namespace zel::aclmgr {

// The expressions that an image is about to refer to, with a reference each. What the image does not take over goes
// back. Under the write lock.
class HeldExpressions {
public:
    HeldExpressions() = default;
    ~HeldExpressions() { release(); }
    HeldExpressions(const HeldExpressions &) = delete;
    HeldExpressions &operator=(const HeldExpressions &) = delete;

    // False when the pattern does not compile.
    bool take(const char *pattern);
    // The next of those taken, in that order, which becomes the image's.
    Link give();
    void release();

private:
    std::vector<zelRegex *> held_;
    std::size_t given_ = 0;
};

class AspDraft : public DraftOf<zelAclAspEntry> {
public:
    std::uint32_t prepare() const override;
    void abandon() const override { expressions_.release(); }
    std::size_t bytes() const override;
    void write(Image *at) const override;

private:
    mutable HeldExpressions expressions_;
};

// A community entry with values of its own.
struct CommItem {
    std::uint32_t sequence = 0;
    std::uint8_t action = 0, kind = 0;
    bool localAs = false, noAdvertise = false, noExport = false;
    std::vector<std::uint32_t> values;
    const char *pattern = nullptr;
};

class CommDraft : public DraftOf<CommItem> {
public:
    std::uint32_t prepare() const override;
    void abandon() const override { expressions_.release(); }
    std::size_t bytes() const override;
    void write(Image *at) const override;

private:
    mutable HeldExpressions expressions_;
};

extern const ListOperations aspOperations, commOperations;

// Expressions stand in the segment beside the lists and count who refers to them. `images` are those of all lists.
// After a writer died: puts the counts right, and frees what nothing refers to.
void repairExpressions(policy::Root &root, const std::vector<Bytes> &images);
// Adds what there is, and what is wrong with it.
void auditExpressions(policy::Root &root, const std::vector<Bytes> &images, zelAclMgrAuditReport &report);

}  // namespace zel::aclmgr
