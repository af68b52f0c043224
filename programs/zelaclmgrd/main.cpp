// zelaclmgrd: the access-list manager, service 57 (ACL). Started by the task manager, or by hand to check a file.
#include <cstdlib>

#include "programs/support/options.h"
#include "programs/support/program.h"
#include "service.h"

namespace {

using namespace zel::programs;

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

[[noreturn]] bool check(const char *file) {
    exit(zelaclmgrd::loadFile(file, nullptr) ? 0 : 1);
}

bool parseOptions(int argc, char **argv, zelaclmgrd::Options &options) {
    return readOptions(argc, argv, help, {{"config", 'c', takeText(options.file)}, {"check", 0, {true, check}}}) &&
           !options.file.empty();
}

}  // namespace

int main(int argc, char **argv) {
    zel::programs::takeHangups();
    return zel::programs::runProgram("tAcl", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelaclmgrd::Service>(count, words, parseOptions, help);
    });
}
