// The command line of zeltmed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zeltmed {

// A task's role: service and instance.
struct Role {
    int service = 0;
    int instance = 0;
    bool operator==(const Role &) const = default;
};

// "RTM(76/0)"
std::string describe(const Role &role);
// Dotted text of an address.
std::string dotted(std::uint32_t address);

struct RemoteTask {
    Role role;
    std::uint32_t address;
};

struct SpawnOrder {
    Role role;
    std::string path;
    std::vector<std::string> arguments;  // without the program's name
};

enum class Command { manage, list, clean };

struct Options {
    Command command = Command::manage;
    bool json = false;
    bool respawn = false;
    bool verbose = false;
    std::uint32_t instance = 0;
    std::vector<std::uint32_t> masters;
    std::vector<RemoteTask> remotes;
    std::vector<SpawnOrder> spawns;
    std::vector<Role> until;
};

// Reads the command line; ends the program for --help and, with status 2, for anything it cannot make sense of. Address
// and prefix go into the environment, for this process and for the tasks that it spawns.
Options parseOptions(int argc, char **argv);

}  // namespace zeltmed
