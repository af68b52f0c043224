// What lines of source hold, as the checking allocator tells it.
#pragma once

#include <string>
#include <vector>

#include "zel/platform.h"

namespace zel::test {

inline std::vector<zelMemCheckSite> allSites() {
    std::vector<zelMemCheckSite> sites(ZEL_MEM_CHECK_SITES);
    sites.resize(static_cast<size_t>(zelMemCheckGetSites(sites.data(), ZEL_MEM_CHECK_SITES)));
    return sites;
}

// Zeros for a line that never allocated.
inline zelMemCheckSite siteOf(const std::string &tag, int line) {
    for (const zelMemCheckSite &site : allSites())
        if (site.tag == tag && site.line == line) return site;
    return {};
}

}  // namespace zel::test
