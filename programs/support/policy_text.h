// Entries of policy lists as text, in the form that readPolicyConfig reads.
#pragma once

#include <string>

#include "policy_config.h"

namespace zel::programs {

std::string textOf(const zelAclIpEntry &entry);
std::string textOf(const zelAclIpv6Entry &entry);
std::string textOf(const zelAclPrefixEntry &entry, int family);
std::string textOf(const PathEntry &entry);
std::string textOf(const CommunityEntry &entry);
std::string textOf(const MapEntry::Clause &clause);
std::string textOf(const MapEntry &entry);

// The whole, which read again gives the same; an access list with entries of both kinds cannot be written, and none is
// read. With `hits`, what the entries of prefix lists decided stands behind them as a comment.
std::string textOf(const PolicyConfig &config, bool hits);

// The entry with that sequence number in a list of a kind ("acl", "acl6", "prefix", "prefix6", "aspath", "community",
// "routemap"), with kind and number in front; "no entry" for 0.
std::string textOfEntry(const PolicyConfig &lists, const std::string &kind, const std::string &name,
                        std::uint32_t sequence);

// The text of one community.
std::string textOfCommunity(std::uint32_t value);

}  // namespace zel::programs
