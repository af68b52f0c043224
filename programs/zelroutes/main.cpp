// zelroutes: a routing process whose routes come from files. Started by the task manager.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "programs/support/program.h"
#include "source.h"

namespace {

using zel::programs::readNumber;

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
      --vrfs N          push all routes into each of the VRFs 0 to N - 1 (default 1)
      --queues N        spread the VRFs over a list of N queues, at most one for each VRF
      --prefix-list NAME, --as-path-list NAME, --community-list NAME
                        push only what these lists of this CPU permit
      --quit            end when everything is acknowledged
  -h, --help            this text
)";

enum LongOnly {
    optionReport = 256,
    optionDistance,
    optionInterface,
    optionWindow,
    optionVrfs,
    optionQueues,
    optionPrefixList,
    optionPathList,
    optionCommunityList,
    optionQuit
};
constexpr option longOptions[] = {
    {"table", required_argument, nullptr, 't'},
    {"updates", required_argument, nullptr, 'u'},
    {"report", required_argument, nullptr, optionReport},
    {"distance", required_argument, nullptr, optionDistance},
    {"interface", required_argument, nullptr, optionInterface},
    {"window", required_argument, nullptr, optionWindow},
    {"vrfs", required_argument, nullptr, optionVrfs},
    {"queues", required_argument, nullptr, optionQueues},
    {"prefix-list", required_argument, nullptr, optionPrefixList},
    {"as-path-list", required_argument, nullptr, optionPathList},
    {"community-list", required_argument, nullptr, optionCommunityList},
    {"quit", no_argument, nullptr, optionQuit},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool parseOptions(int argc, char **argv, zelroutes::Options &options) {
    for (int option; (option = getopt_long(argc, argv, "+t:u:h", longOptions, nullptr)) != -1;) {
        bool isValid = true;
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
                isValid = readNumber<std::uint8_t>(optarg, 0, UINT8_MAX, options.distance);
                break;
            case optionInterface:
                isValid = readNumber<std::uint32_t>(optarg, 0, UINT32_MAX, options.interface);
                break;
            case optionWindow:
                isValid = readNumber<std::uint32_t>(optarg, 1, ZEL_SWP_DEFAULT_CAPACITY, options.window);
                break;
            case optionVrfs:
                isValid = readNumber<std::uint32_t>(optarg, 1, 1024, options.vrfs);
                break;
            case optionQueues:
                isValid = readNumber<std::uint32_t>(optarg, 1, 64, options.queues);
                break;
            case optionPrefixList:
                options.filter.prefixes = optarg;
                break;
            case optionPathList:
                options.filter.paths = optarg;
                break;
            case optionCommunityList:
                options.filter.communities = optarg;
                break;
            case optionQuit:
                options.quits = true;
                break;
            case 'h':
                fputs(help, stdout);
                exit(0);
            default:
                isValid = false;
        }
        if (!isValid) return false;
    }
    return !options.table.empty() && options.queues <= options.vrfs;
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tRoutes", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelroutes::Source>(count, words, parseOptions, help);
    });
}
