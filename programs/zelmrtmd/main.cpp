// zelmrtmd: the multicast route table manager of a CPU, service 139 (MRTM). Started by the task manager.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "manager.h"
#include "programs/support/program.h"

namespace {

constexpr const char *help =
    R"(usage: zelmrtmd [OPTION]... IDENTITY

The multicast route table manager. IDENTITY is the eight arguments that the task manager passes to every task, for
instance by
  zeltmed --spawn 'MRTM zelmrtmd'

      --max-clients N   clients that may be registered at once (default 64, at most 255)
  -h, --help            this text
)";

constexpr int optionMaxClients = 256;
constexpr option longOptions[] = {
    {"max-clients", required_argument, nullptr, optionMaxClients},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool parseOptions(int argc, char **argv, zelmrtmd::Options &options) {
    for (int option; (option = getopt_long(argc, argv, "+h", longOptions, nullptr)) != -1;) switch (option) {
            case optionMaxClients:
                if (!zel::programs::readNumber<std::size_t>(optarg, 1, 255, options.mostClients)) return false;
                break;
            case 'h':
                fputs(help, stdout);
                exit(0);
            default:
                return false;
        }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tMrtm", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelmrtmd::Manager>(count, words, parseOptions, help);
    });
}
