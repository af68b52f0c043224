// zeldemo: the main job of the library with real processes. `./zel demo` builds and runs it.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cpu.h"
#include "demo.h"
#include "programs/support/options.h"
#include "programs/support/program.h"
#include "slots.h"
#include "two.h"

namespace {

constexpr const char *help =
    R"(usage: zeldemo [OPTION]... [ADDRESS]...

Starts a task manager, a route table manager and a source of routes as processes of their own, pushes a table of the
Internet from the source into the manager, asks the manager for the longest match of each ADDRESS (or of a dozen chosen
ones), compares its table with the file, and sums up. Ends with status 0 when everything agrees, and leaves nothing
behind.

  -t, --table FILE   another table: prefix|next hop|AS path|communities per line; .xz is unpacked
      --policy FILE  the sources push only what the lists "edge" of this file permit, kept by the manager of policy
                     lists in shared memory: a prefix list, an AS-path list and a community list
  -p, --peers N      up to 4 sources at once, each with the whole table: BGP, OSPF, ISIS and RIP (a service has one
                     instance, so there are no more keys for sources)
  -k, --kill         kill the route table manager half-way and watch everybody recover
  -2, --two          show two route processors instead: the first 20,000 routes pushed on one, a request over the link
                     to it, a batch of multicast routes, and indexes that outlive it when it is killed; without policy
  -h, --help         this text
)";

enum LongOnly { optionPolicy = 256 };
constexpr option longOptions[] = {
    {"table", required_argument, nullptr, 't'},
    {"policy", required_argument, nullptr, optionPolicy},
    {"peers", required_argument, nullptr, 'p'},
    {"kill", no_argument, nullptr, 'k'},
    {"two", no_argument, nullptr, '2'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

zeldemo::Options options;
bool showsTwo = false;

[[noreturn]] void refuse(const char *why) {
    fprintf(stderr, "zeldemo: %s\nTry 'zeldemo --help'.\n", why);
    exit(2);
}

void parseOptions(int argc, char **argv) {
    for (int option; (option = getopt_long(argc, argv, "t:p:k2h", longOptions, nullptr)) != -1;) switch (option) {
            case 't':
                options.table = optarg;
                break;
            case optionPolicy:
                options.policy = optarg;
                break;
            case 'p':
                if (!zel::programs::readNumber(optarg, 1u, zeldemo::mostPeers, options.peers))
                    refuse("there can be 1 to 4 peers: BGP, OSPF, ISIS and RIP, one instance each");
                break;
            case 'k':
                options.kills = true;
                break;
            case '2':
                showsTwo = true;
                break;
            case 'h':
                fputs(help, stdout);
                exit(0);
            default:
                refuse("the command line cannot be understood");
        }
    options.addresses.assign(argv + optind, argv + argc);
    if (showsTwo && (options.kills || options.peers > 1 || !options.addresses.empty()))
        refuse("--two goes without --peers, --kill and addresses");
}

int body(int, char **) {
    return showsTwo ? zeldemo::demonstrateTwo(options.table) : zeldemo::demonstrate(options);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1 && strcmp(argv[1], zeldemo::slotOption) == 0) return zeldemo::runSlots(argc, argv);
    parseOptions(argc, argv);
    zeldemo::isolate();
    if (showsTwo) zeldemo::prepareTwo();
    return zel::programs::runProgram("tDemo", argc, argv, body);
}
