// zelroutes: a routing process whose routes come from files. Started by the task manager.
#include "programs/support/options.h"
#include "programs/support/program.h"
#include "source.h"

namespace {

using namespace zel::programs;

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

bool parseOptions(int argc, char **argv, zelroutes::Options &options) {
    const auto addUpdates = [&](const char *file) { return options.updates.push_back(file), true; };
    return readOptions(argc, argv, help,
                       {{"table", 't', takeText(options.table)},
                        {"updates", 'u', {true, addUpdates}},
                        {"report", 0, takeText(options.report)},
                        {"distance", 0, takeNumber<std::uint8_t>(0, UINT8_MAX, options.distance)},
                        {"interface", 0, takeNumber(0u, UINT32_MAX, options.interface)},
                        {"window", 0, takeNumber<std::uint32_t>(1, ZEL_SWP_DEFAULT_CAPACITY, options.window)},
                        {"vrfs", 0, takeNumber(1u, 1024u, options.vrfs)},
                        {"queues", 0, takeNumber(1u, 64u, options.queues)},
                        {"prefix-list", 0, takeText(options.filter.prefixes)},
                        {"as-path-list", 0, takeText(options.filter.paths)},
                        {"community-list", 0, takeText(options.filter.communities)},
                        {"quit", 0, takeFlag(options.quits)}}) &&
           !options.table.empty() && options.queues <= options.vrfs;
}

}  // namespace

int main(int argc, char **argv) {
    return zel::programs::runProgram("tRoutes", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<zelroutes::Source>(count, words, parseOptions, help);
    });
}
