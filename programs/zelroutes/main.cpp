// zelroutes: a routing process whose routes come from files. Started by the task manager.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "programs/support/program.h"
#include "source.h"

namespace {

constexpr const char *help =
    R"(usage: zelroutes --table FILE [OPTION]... IDENTITY

Registers with the route table manager and pushes the routes of a table, with AS path and communities, and keeps them
there until it is ended. IDENTITY is the eight arguments that the task manager passes to every task, for instance by
  zeltmed --spawn 'BGP zelroutes --table data/rib4_full_2015-10.txt.xz'

  -t, --table FILE      prefix|next hop|AS path|communities per line; .xz is unpacked
  -u, --updates FILE    then play this recording: A or W|peer|prefix|next hop|AS path|communities; may be repeated
      --report FILE     write a summary there when everything is acknowledged
      --distance N      preference of the routes, smaller is better (default 20)
      --interface N     outgoing interface of the next hops, 0 for hops to be resolved (default 1)
      --window N        messages in flight (default: the queue's)
      --quit            end when everything is acknowledged
  -h, --help            this text
)";

enum LongOnly { optionReport = 256, optionDistance, optionInterface, optionWindow, optionQuit };
constexpr option longOptions[] = {
    {"table", required_argument, nullptr, 't'},
    {"updates", required_argument, nullptr, 'u'},
    {"report", required_argument, nullptr, optionReport},
    {"distance", required_argument, nullptr, optionDistance},
    {"interface", required_argument, nullptr, optionInterface},
    {"window", required_argument, nullptr, optionWindow},
    {"quit", no_argument, nullptr, optionQuit},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool parseOptions(int argc, char **argv, zelroutes::Options &options) {
    for (int option; (option = getopt_long(argc, argv, "+t:u:h", longOptions, nullptr)) != -1;) {
        const unsigned long number = optarg ? strtoul(optarg, nullptr, 10) : 0;
        switch (option) {
            case 't':
                options.table = optarg;
                break;
            case 'u':
                options.updates.push_back(optarg);
                break;
            case optionReport:
                options.report = optarg;
                break;
            case optionDistance:
                options.distance = static_cast<std::uint8_t>(number);
                break;
            case optionInterface:
                options.interface = static_cast<std::uint32_t>(number);
                break;
            case optionWindow:
                options.window = static_cast<std::uint32_t>(number);
                break;
            case optionQuit:
                options.quits = true;
                break;
            case 'h':
                fputs(help, stdout);
                exit(0);
            default:
                return false;
        }
    }
    return !options.table.empty() && argc - optind == zel::programs::identityArguments;
}

int pushRoutes(int argc, char **argv) {
    zelroutes::Options options;
    if (!parseOptions(argc, argv, options)) {
        fputs(help, stderr);
        return 2;
    }
    const int key = zelTaskStartup(argc, argv);
    if (key < 0) return 1;
    zel::programs::wakeOnStop(static_cast<std::uint32_t>(key));
    if (zelTaskReady(static_cast<std::uint32_t>(key)) != 0) return 1;
    const int status = zelroutes::Source(static_cast<std::uint32_t>(key), options).run();
    zelIpcClose(static_cast<std::uint32_t>(key));
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tRoutes", argc, argv, pushRoutes);
}
