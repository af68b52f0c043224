// The demonstration, step by step: read the table, start the programs, watch the routes arrive, ask, compare, sum up.
#pragma once

#include <string>
#include <vector>

namespace zeldemo {

struct Options {
    std::string table = "data/rib4_full_2015-10.txt.xz";
    std::string policy;  // file of lists; none: everything is pushed
    unsigned peers = 1;
    bool kills = false;
    std::vector<std::string> addresses;
};

constexpr unsigned mostPeers = 4;

// Runs in a task: the exit status.
int demonstrate(const Options &options);

}  // namespace zeldemo
