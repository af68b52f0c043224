// Prefix lists outside the segment, and their images (policy/prefix_layout.h).
#pragma once

#include "aclmgr/draft.h"
#include "policy/prefix_layout.h"

namespace zel::aclmgr {

class PrefixDraft : public DraftOf<zelAclPrefixEntry> {
public:
    explicit PrefixDraft(int family) : width_(policy::widthOf(family)) {}

    // Adds an entry as it was given: bytes that the family's addresses do not have are cleared. The code of why not, or
    // 0.
    std::uint32_t take(zelAclPrefixEntry entry);
    // Entries that stand in both lists and are alike go on counting hits.
    void keepHits(const PrefixDraft &before);

    std::size_t bytes() const override;
    void write(Image *at) const override;

private:
    class Plan;
    std::uint32_t width_;
};

// The entries of an image of that family, as far as it is whole.
std::unique_ptr<PrefixDraft> readPrefixes(const Bytes &image, int family);
// Whether all of an image leads to where it should.
bool isWholePrefixes(const Bytes &image);

extern const ListOperations prefix4Operations, prefix6Operations;

}  // namespace zel::aclmgr
