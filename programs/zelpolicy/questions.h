// Questions to policy lists: about one thing each, and their answers.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "programs/support/policy_config.h"

namespace zelpolicy {

using Words = std::vector<std::string>;

struct Answer {
    std::string list;
    std::uint32_t verdict = 0;          // 0 permits
    std::uint32_t sequence = 0;         // of the entry that decides; 0: none
    std::string entry;                  // its text
    std::optional<std::uint32_t> hits;  // what it decided before, where that is counted
    std::string why;
};

// Answers a command ("acl", "udp", "prefix", "aspath", "community", "routemap") about its arguments, with what the
// tables say in place; false and in `error` what is wrong with them. `lists` is what the tables hold, and the caller
// has held the read lock since he read it.
bool answer(const std::string &command, const Words &arguments, const zel::programs::PolicyConfig &lists,
            Answer &answer, std::string &error);

// ADDRESS/LENGTH or ADDRESS of either family.
struct Prefix {
    int family = 0;
    std::uint8_t address[16] = {};
    std::uint8_t length = 0;
};
bool readPrefix(const std::string &text, Prefix &prefix);

}  // namespace zelpolicy
