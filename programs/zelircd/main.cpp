// zelircd: the link service of a route processor, service 36 (IRC). Started by the task manager.
#include <arpa/inet.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "programs/support/options.h"
#include "programs/support/program.h"
#include "service.h"
#include "zel/platform.h"

namespace {

using namespace zel::programs;

constexpr const char *help =
    R"(usage: zelircd --peer ADDRESS [OPTION]... IDENTITY
       zelircd --status

Carries messages of the tasks of this route processor to those of its peer. IDENTITY is the eight arguments that
the task manager passes to every task, for instance by
  zeltmed --spawn 'IRC zelircd --peer 10.0.0.2'

      --peer ADDRESS    IPC address of the peer route processor
      --name TEXT       name to give to the peer (default: the host's)
      --interval MS     time between two keep-alives, in steps of 20 (default 500, 20 to 60000)
      --losses N        intervals without a word after which the peer is lost (default 3, 2 to 100)
      --ha-version N    what the peer's must equal to be compatible (default 1)
      --status          print link state and counters of this CPU's link service
  -h, --help            this text
)";

constexpr int millisecondsPerTick = 20;

const char *statusText(std::uint32_t status) {
    return status == ZEL_IRC_LINK_UP ? "up" : status == ZEL_IRC_LINK_DOWN ? "down" : "unknown";
}

[[noreturn]] bool showStatus(const char *) {
    static constexpr const char *names[ZEL_IRC_COUNTERS] = {"forwarded", "control", "malformed", "refused",
                                                            "link down", "failed",  "ups",       "losses"};
    std::uint64_t counters[ZEL_IRC_COUNTERS];
    if (zelPlatformHasSegments() == 0 || zelIrcGetCounters(counters) != 0) {
        fprintf(stderr, "zelircd: no link service has run on this CPU\n");
        exit(1);
    }
    printf("link %s, %s\n", statusText(zelGetIrcLinkStatus()),
           ircGetHAComptWithPeerRpm() ? "compatible" : "not compatible");
    for (int i = 0; i < ZEL_IRC_COUNTERS; ++i) printf("%-10s %" PRIu64 "\n", names[i], counters[i]);
    exit(0);
}

bool readAddress(const char *text, std::uint32_t &address) {
    in_addr bytes{};
    if (inet_pton(AF_INET, text, &bytes) != 1) return false;
    address = ntohl(bytes.s_addr);
    return address != 0 && address != ZEL_IPC_NO_ADDRESS && address != zelPlatformIpcAddress();
}

bool readInterval(const char *text, std::uint32_t &ticks) {
    std::uint32_t milliseconds = 0;
    if (!readNumber<std::uint32_t>(text, millisecondsPerTick, 60000, milliseconds)) return false;
    ticks = milliseconds / millisecondsPerTick;
    return true;
}

bool parseOptions(int argc, char **argv, zelircd::Options &options) {
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    options.name = host;
    const auto peer = [&](const char *text) { return readAddress(text, options.peer); };
    const auto interval = [&](const char *text) { return readInterval(text, options.intervalTicks); };
    return readOptions(argc, argv, help,
                       {{"peer", 0, {true, peer}},
                        {"name", 0, takeText(options.name)},
                        {"interval", 0, {true, interval}},
                        {"losses", 0, takeNumber(2u, 100u, options.lossIntervals)},
                        {"ha-version", 0, takeNumber(0u, UINT32_MAX, options.version)},
                        {"status", 0, {false, showStatus}}}) &&
           options.peer != ZEL_IPC_NO_ADDRESS;
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tIrc", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelircd::Service>(count, words, parseOptions, help);
    });
}
