// zelrtmd: the route table manager of a CPU, service 76 (RTM). Started by the task manager.
#include "manager.h"
#include "programs/support/options.h"
#include "programs/support/program.h"

namespace {

using namespace zel::programs;

constexpr const char *help =
    R"(usage: zelrtmd [OPTION]... IDENTITY

The route table manager. IDENTITY is the eight arguments that the task manager passes to every task, for instance by
  zeltmed --spawn 'RTM zelrtmd'

      --max-clients N   clients that may be registered at once (default 64, at most 255)
      --count-only      count routes and forget them
  -h, --help            this text
)";

bool parseOptions(int argc, char **argv, zelrtmd::Options &options) {
    return readOptions(argc, argv, help,
                       {{"max-clients", 0, takeNumber<std::size_t>(1, 255, options.mostClients)},
                        {"count-only", 0, takeFlag(options.onlyCounts)}});
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tRtm", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelrtmd::Manager>(count, words, parseOptions, help);
    });
}
