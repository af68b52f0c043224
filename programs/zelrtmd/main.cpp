// zelrtmd: the route table manager of a CPU, service 76 (RTM). Started by the task manager.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "manager.h"
#include "programs/support/program.h"

namespace {

constexpr const char *help =
    R"(usage: zelrtmd [OPTION]... IDENTITY

The route table manager. IDENTITY is the eight arguments that the task manager passes to every task, for instance by
  zeltmed --spawn 'RTM zelrtmd'

      --max-clients N   clients that may be registered at once (default 64, at most 255)
      --count-only      count routes and forget them
  -h, --help            this text
)";

enum LongOnly { optionMaxClients = 256, optionCountOnly };
constexpr option longOptions[] = {
    {"max-clients", required_argument, nullptr, optionMaxClients},
    {"count-only", no_argument, nullptr, optionCountOnly},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool parseOptions(int argc, char **argv, zelrtmd::Options &options) {
    for (int option; (option = getopt_long(argc, argv, "+h", longOptions, nullptr)) != -1;) switch (option) {
            case optionMaxClients:
                options.mostClients = strtoul(optarg, nullptr, 10);
                break;
            case optionCountOnly:
                options.onlyCounts = true;
                break;
            case 'h':
                fputs(help, stdout);
                exit(0);
            default:
                return false;
        }
    return argc - optind == zel::programs::identityArguments;
}

int manageRoutes(int argc, char **argv) {
    zelrtmd::Options options;
    if (!parseOptions(argc, argv, options)) {
        fputs(help, stderr);
        return 2;
    }
    const int key = zelTaskStartup(argc, argv);
    if (key < 0) return 1;
    zel::programs::wakeOnStop(static_cast<std::uint32_t>(key));
    zelrtmd::Manager manager(static_cast<std::uint32_t>(key), options);
    if (zelTaskReady(static_cast<std::uint32_t>(key)) != 0) return 1;
    const int status = manager.run();
    zelIpcClose(static_cast<std::uint32_t>(key));
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tRtm", argc, argv, manageRoutes);
}
