// Policy lists as operators write them: one line an entry, lists put together by their names.
//
//     ip access-list standard NAME              permit|deny SOURCE
//     ip access-list extended NAME              permit|deny PROTOCOL SOURCE [PORTS] DESTINATION [PORTS]
//     ipv6 access-list NAME                     permit|deny SOURCE [DESTINATION]
//     ip|ipv6 prefix-list NAME                  permit|deny ADDRESS/LENGTH [ge N] [le N]
//     ip as-path access-list NAME               permit|deny EXPRESSION
//     ip community-list standard|expanded NAME  permit|deny COMMUNITY...|EXPRESSION
//     route-map NAME permit|deny NUMBER         match ip|ipv6 address [prefix-list] NAME..., match ip next-hop NAME...,
//                                               match as-path NAME..., match community NAME... [exact-match]
//
// What follows the name stands on the same line, or on lines of its own below it, as many as there are entries, each
// with "seq N" in front if it is not to come behind the others. "!" and "#" begin comments.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "zel/aclmgr.h"

namespace zel::programs {

template <class Entry>
using Lists = std::map<std::string, std::vector<Entry>>;

struct PathEntry {
    std::uint32_t sequence;
    std::uint8_t action;
    std::string pattern;
    bool operator==(const PathEntry &) const = default;
};

struct CommunityEntry {
    std::uint32_t sequence = 0;
    std::uint8_t action = 0;
    std::uint8_t kind = 1;
    bool localAs = false, noAdvertise = false, noExport = false;
    std::vector<std::uint32_t> values;
    std::string pattern;
    bool operator==(const CommunityEntry &) const = default;
};

struct MapEntry {
    struct Clause {
        zelAclMatch match;
        std::vector<std::string> names;
        bool operator==(const Clause &) const = default;
    };
    std::uint32_t sequence;
    std::uint8_t action;
    std::vector<Clause> clauses;
    bool operator==(const MapEntry &) const = default;
};

// Entries stand in the order of their sequence numbers.
struct PolicyConfig {
    Lists<zelAclIpEntry> ip;
    Lists<zelAclIpv6Entry> ipv6;
    Lists<zelAclPrefixEntry> prefix, prefix6;
    Lists<PathEntry> paths;
    Lists<CommunityEntry> communities;
    Lists<MapEntry> maps;
};

// What is wrong, and where; lines and columns count from 1.
struct ConfigProblem {
    unsigned line;
    unsigned column;
    std::string text;
};

// Reads a whole configuration. With problems, the lines that have none are in `config` all the same.
std::vector<ConfigProblem> readPolicyConfig(std::string_view text, PolicyConfig &config);

// The same for a file; one that cannot be read is a problem of line 0.
std::vector<ConfigProblem> readPolicyFile(const std::string &file, PolicyConfig &config);

// The text of a code, without the marks around it.
std::string textOfCode(std::uint32_t code, const std::string &name = {});

}  // namespace zel::programs
