// zelmrtmd: the multicast route table manager of a CPU, service 139 (MRTM). Started by the task manager.
#include "manager.h"
#include "programs/support/options.h"
#include "programs/support/program.h"

namespace {

using namespace zel::programs;

constexpr const char *help =
    R"(usage: zelmrtmd [OPTION]... IDENTITY

The multicast route table manager. IDENTITY is the eight arguments that the task manager passes to every task, for
instance by
  zeltmed --spawn 'MRTM zelmrtmd'

      --max-clients N   clients that may be registered at once (default 64, at most 255)
  -h, --help            this text
)";

bool parseOptions(int argc, char **argv, zelmrtmd::Options &options) {
    return readOptions(argc, argv, help, {{"max-clients", 0, takeNumber<std::size_t>(1, 255, options.mostClients)}});
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tMrtm", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelmrtmd::Manager>(count, words, parseOptions, help);
    });
}
