// Route maps outside the segment, and their images (policy/route_map_layout.h).
#pragma once

#include <string>
#include <vector>

#include "aclmgr/draft.h"

namespace zel::aclmgr {

// A sequence with clauses and names of its own.
struct MapItem {
    struct Clause {
        zelAclMatch match;
        std::vector<std::string> names;
    };
    std::uint32_t sequence = 0;
    std::uint8_t action = 0;
    std::vector<Clause> clauses;
};

class MapDraft : public DraftOf<MapItem> {
public:
    // Adds an entry as it was given. The code of why not, or 0.
    std::uint32_t take(const zelAclMapEntry &entry);

    std::size_t bytes() const override;
    void write(Image *at) const override;
};

// Whether all of an image leads to where it should.
bool isWholeMap(const Bytes &image);

extern const ListOperations mapOperations;

}  // namespace zel::aclmgr
