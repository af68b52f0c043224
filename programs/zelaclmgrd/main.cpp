// zelaclmgrd: the access-list manager, service 57 (ACL). Started by the task manager, or by hand to check a file.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "programs/support/program.h"
#include "service.h"

namespace {

constexpr const char *help =
    R"(usage: zelaclmgrd --config FILE IDENTITY
       zelaclmgrd --check FILE

Fills the policy tables of a CPU from a file, and follows the file on SIGHUP: lists that are the same stay untouched,
others are replaced in one step each. A file with an error changes nothing. IDENTITY is the eight arguments that the task
manager passes to every task, for instance by
  zeltmed --spawn 'ACL zelaclmgrd --config policy.conf'

  -c, --config FILE     access lists, prefix lists, AS-path and community lists, route maps
      --check FILE      only say what is wrong with the file
  -h, --help            this text
)";

enum LongOnly { optionCheck = 256 };
constexpr option longOptions[] = {
    {"config", required_argument, nullptr, 'c'},
    {"check", required_argument, nullptr, optionCheck},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool parseOptions(int argc, char **argv, zelaclmgrd::Options &options) {
    for (int option; (option = getopt_long(argc, argv, "+c:h", longOptions, nullptr)) != -1;) switch (option) {
            case 'c':
                options.file = optarg;
                break;
            case optionCheck:
                exit(zelaclmgrd::loadFile(optarg, nullptr) ? 0 : 1);
            case 'h':
                fputs(help, stdout);
                exit(0);
            default:
                return false;
        }
    return !options.file.empty();
}

}  // namespace

int main(int argc, char **argv) {
    zel::programs::takeHangups();
    return zel::programs::runProgram("tAcl", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelaclmgrd::Service>(count, words, parseOptions, help);
    });
}
