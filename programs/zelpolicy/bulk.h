// A whole table through one list or several: how many routes it permits, and how many each entry decided.
#pragma once

#include <string>
#include <vector>

#include "programs/support/policy_config.h"

namespace zelpolicy {

// One list of a kind that can be asked about routes: prefix, aspath, community, acl or routemap.
struct BulkList {
    std::string kind;
    std::string name;
};

struct BulkCounts {
    struct Entry {
        std::uint32_t sequence;  // 0: no entry matched
        std::string text;        // with kind and number in front
        unsigned long routes;
    };
    BulkList list;
    unsigned long permitted = 0, denied = 0;
    std::vector<Entry> entries;
};

struct BulkResult {
    unsigned long routes = 0, unreadable = 0, permittedByAll = 0;
    double seconds = 0;  // of the checks alone
    std::vector<BulkCounts> lists;
};

// Asks every list about every route of the table, in place. Writers get in between some hundred routes: what they
// change shows in the counts of those that follow. False and in `error` why not.
bool runBulk(const std::string &table, const std::vector<BulkList> &lists, const zel::programs::PolicyConfig &texts,
             BulkResult &result, std::string &error);

}  // namespace zelpolicy
