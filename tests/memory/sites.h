// The checking allocator as the tests replace it: the default, which runs out on request.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "zel/platform.h"

namespace zel::test {

// The nth allocation from now gives null; 0 switches failing off.
void failAllocation(unsigned nth);
bool hasAllocationFailed();
// Called with each allocation, before it happens.
extern std::function<void(size_t bytes)> onAllocation;

inline std::vector<zelMemCheckSite> allSites() {
    std::vector<zelMemCheckSite> sites(static_cast<size_t>(zelMemCheckGetSites(nullptr, 0)) + 64);
    sites.resize(static_cast<size_t>(zelMemCheckGetSites(sites.data(), static_cast<int>(sites.size()))));
    return sites;
}

// What a line holds; zeros for one that never allocated.
inline zelMemCheckSite siteOf(const std::string &tag, int line) {
    for (const zelMemCheckSite &site : allSites())
        if (site.tag == tag && site.line == line) return site;
    return {};
}

}  // namespace zel::test
