// A configuration put into the policy tables, as a difference to what is there: lists that are the same stay untouched,
// others are replaced whole, and those that are not in it are removed.
#pragma once

#include <string>
#include <vector>

#include "policy_config.h"
#include "zel/aclmgr.h"

namespace zel::programs {

// The read lock of the tables, to the end of the scope: whatever is read and asked meanwhile is of one state.
class PolicyReadLock {
public:
    PolicyReadLock() { aclReadLock(); }
    ~PolicyReadLock() { aclReadUnlock(); }
    PolicyReadLock(const PolicyReadLock &) = delete;
    PolicyReadLock &operator=(const PolicyReadLock &) = delete;
};

struct Applied {
    unsigned kept = 0, changed = 0, created = 0, removed = 0;
    std::vector<std::string> failures;  // each names the list and says why it stayed as it was
};

Applied applyPolicyConfig(zelAclMgr *manager, const PolicyConfig &config);

// What the tables hold, lists without entries too. A handle that only reads will do.
PolicyConfig readPolicyTables(zelAclMgr *manager);

}  // namespace zel::programs
