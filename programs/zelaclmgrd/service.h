// The access-list manager: keeps the policy tables of a CPU as a configuration file has them.
#pragma once

#include <cstdint>
#include <string>

#include "zel/aclmgr.h"

namespace zelaclmgrd {

struct Options {
    std::string file;
};

// Reads the file and says on standard error what is wrong with it; with `manager`, puts it into the tables when nothing
// is. Whether all went well.
bool loadFile(const std::string &file, zelAclMgr *manager);

class Service {
public:
    // Loads the file: whoever starts when this service is ready finds the lists.
    Service(std::uint32_t key, const Options &options);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Loads the file again on every SIGHUP, until a signal ends the program.
    int run();

private:
    std::uint32_t key_;
    Options options_;
    zelAclMgr *manager_;
    bool isLoaded_ = false;
};

}  // namespace zelaclmgrd
