#include "demo.h"

#include <arpa/inet.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "comparison.h"
#include "cpu.h"
#include "programs/support/attributes.h"
#include "programs/support/policy_filter.h"
#include "programs/support/policy_text.h"
#include "programs/support/program.h"
#include "programs/support/table_file.h"
#include "progress.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"
#include "zel/rtm.h"

namespace zeldemo {
namespace {

using zel::programs::isStopping;
using zel::programs::monotonicSeconds;
using zel::programs::TableFile;

constexpr int ownService = 87;     // TEST_TSK
constexpr int policyService = 57;  // ACL
constexpr int pollTicks = 2;
constexpr double secondsWithoutProgress = 120;
constexpr std::size_t addressesAsked = 12;

const std::vector<std::string> sourceServices = {"BGP", "OSPF", "ISIS", "RIP"};

// Well spread over a table of the Internet; the last one is covered by a default route alone.
const std::vector<std::string> chosenAddresses = {
    "8.8.8.8",      "1.1.1.1",    "9.9.9.9",     "18.9.22.69", "128.30.2.155",   "130.59.31.80",
    "151.101.1.69", "192.0.32.7", "193.0.6.139", "198.41.0.4", "208.67.222.222", "203.0.113.1",
};

class Demo {
public:
    explicit Demo(const Options &options) : options_(options) {}
    int run();

private:
    bool read();
    double secondsOfSources();
    bool open();
    bool awaitManager(pid_t otherThan);
    bool filter();
    bool awaitRoutes();
    bool killManager(Progress &progress);
    void ask(const Expected &expected);
    void askFor(const std::string &address);
    bool compare(const Expected &expected);
    void sumUp(const Expected &expected);
    int fail(const char *why);

    const Options &options_;
    Cpu cpu_;
    TableFile table_;
    std::size_t rowsRead_ = 0;
    zelIpcAddr address_{};
    std::uint32_t handle_ = 0;
    double recovery_ = 0;
};

int Demo::fail(const char *why) {
    if (!isStopping()) {
        fprintf(stderr, "zeldemo: %s\n", why);
        cpu_.showLog();
    }
    return 1;
}

bool Demo::read() {
    const char *name = options_.table.c_str();
    printf("Reading %s ...\n", name);
    if (!readTable(options_.table, table_)) {
        fprintf(stderr, "zeldemo: %s cannot be read\n", name);
        return false;
    }
    if (table_.unreadable > 0)
        fprintf(stderr, "zeldemo: %s: %lu lines are no routes, the first of them is line %lu\n", name,
                table_.unreadable, table_.firstUnreadable);
    if (table_.rows.empty()) fprintf(stderr, "zeldemo: %s holds no route\n", name);
    return !table_.rows.empty();
}

// As the slowest of them measured: from its first route to its last acknowledgement.
double Demo::secondsOfSources() {
    double seconds = 0;
    for (const Report &report : cpu_.reports())
        if (const auto own = report.find("seconds"); own != report.end()) seconds = std::max(seconds, own->second);
    return seconds;
}

bool Demo::open() {
    const int key = zelIpcOpen(ownService, 0);
    if (key < 0) return false;
    address_.service = ownService;
    address_.taskKey = static_cast<std::uint32_t>(key);
    return true;
}

// Until the route table manager is up, as another process than one it was before.
bool Demo::awaitManager(pid_t otherThan) {
    const double deadline = monotonicSeconds() + secondsWithoutProgress;
    while (!isStopping() && cpu_.isRunning() && monotonicSeconds() < deadline) {
        const pid_t now = cpu_.routeManager();
        zelTmeTaskEntry entry{};
        const bool isEntered = zelTmeGetTaskEntry(ZEL_RTM_SERVICE, 0, &entry) == 0 && entry.state == ZEL_TME_HERE;
        if (now > 0 && now != otherThan && isEntered) return true;
        taskDelay(pollTicks);
    }
    return false;
}

bool Demo::killManager(Progress &progress) {
    const pid_t victim = cpu_.routeManager();
    if (victim <= 0) return false;
    cpu_.removeReports();
    progress.note("Killing the route table manager, process " + std::to_string(victim) + " ...");
    const double begin = monotonicSeconds();
    kill(victim, SIGKILL);
    if (!awaitManager(victim)) return false;
    recovery_ = monotonicSeconds() - begin;
    char text[120];
    snprintf(text, sizeof text, "... process %d took its place after %.2f s; the sources register again and resend.",
             static_cast<int>(cpu_.routeManager()), recovery_);
    progress.note(text);
    return true;
}

bool Demo::awaitRoutes() {
    const std::uint64_t total = table_.rows.size() * options_.peers;
    Progress progress(total);
    bool mustKill = options_.kills;
    std::uint64_t before = 0, counters[ZEL_RTM_COUNTERS] = {};
    double lastProgress = monotonicSeconds();
    while (mustKill || cpu_.finished() < options_.peers) {
        if (isStopping() || !cpu_.isRunning() || monotonicSeconds() - lastProgress > secondsWithoutProgress)
            return false;
        if (zelRtmGetCounters(&address_, counters) != 0) return false;
        const std::uint64_t done = counters[ZEL_RTM_COUNT_ADDS];
        if (done != before) lastProgress = monotonicSeconds();
        before = done;
        progress.show(done);
        // Every source has registered, and so has something to recover from; we are a client, too.
        if (mustKill && done >= total / 2 && counters[ZEL_RTM_COUNT_CLIENTS] > options_.peers) {
            mustKill = false;
            if (!killManager(progress)) return false;
        }
        taskDelay(pollTicks);
    }
    if (zelRtmGetCounters(&address_, counters) != 0) return false;
    progress.finish(counters[ZEL_RTM_COUNT_ADDS], secondsOfSources());
    return true;
}

// ---- Policy ---------------------------------------------------------------------------------------------------------

// Says how many routes each entry took, and leaves in our table what the sources push: the same lists say so.
bool Demo::filter() {
    const double deadline = monotonicSeconds() + secondsWithoutProgress;
    zelTmeTaskEntry entry{};
    while (zelTmeGetTaskEntry(policyService, 0, &entry) != 0 || entry.state != ZEL_TME_HERE) {
        if (isStopping() || !cpu_.isRunning() || monotonicSeconds() > deadline) return false;
        taskDelay(pollTicks);
    }
    zel::programs::PolicyConfig lists;
    if (!zel::programs::readPolicyFile(options_.policy, lists).empty()) return false;
    const auto counts = filterTable(table_, {policyList, policyList, policyList});
    printf("\nRoutes that the lists took, entry by entry:\n");
    for (const char *kind : {"prefix", "prefix6", "aspath", "community"})
        for (const auto &[decided, routes] : counts)
            if (decided.first == kind)
                printf("  %10s  %s\n", grouped(routes).c_str(),
                       textOfEntry(lists, kind, policyList, decided.second).c_str());
    printf("%s of %s rows are permitted.\n\n", grouped(table_.rows.size()).c_str(), grouped(rowsRead_).c_str());
    return true;
}

// ---- Questions ------------------------------------------------------------------------------------------------------

void Demo::askFor(const std::string &address) {
    std::uint8_t bytes[16], query[ZEL_RTM_QUERY_LENGTH];
    const int family = address.find(':') != std::string::npos ? ZEL_RTM_IPV6_UNICAST : ZEL_RTM_IPV4_UNICAST;
    if (inet_pton(family == ZEL_RTM_IPV6_UNICAST ? AF_INET6 : AF_INET, address.c_str(), bytes) != 1) {
        printf("  %-18s is no address\n", address.c_str());
        return;
    }
    zelRtmBuildQuery(query, ZEL_RTM_MATCH_LONGEST, family, bytes, family == ZEL_RTM_IPV6_UNICAST ? 128 : 32);
    zelRtmRoute route;
    std::uint32_t bits = 0;
    if (zelRtmRouteLookupIPv4(handle_, ZEL_RTM_POLL_START, &address_, 0, query) != 0 ||
        zelRtmParseAnswer(query, &route, &bits) != ZEL_RTM_FOUND) {
        printf("  %-18s no route\n", address.c_str());
        return;
    }
    char prefix[INET6_ADDRSTRLEN], hop[INET6_ADDRSTRLEN];
    rtm_inet_ntop(family, route.prefix, prefix, sizeof prefix);
    rtm_inet_ntop(family, route.hop[0].addr, hop, sizeof hop);
    const auto texts = zel::programs::decodeAttributes(route.tlv, route.tlvLen);
    printf("  %-18s %-20s %-16s %s\n", address.c_str(), (std::string(prefix) + "/" + std::to_string(bits)).c_str(), hop,
           texts.asPath.c_str());
}

void Demo::ask(const Expected &expected) {
    std::vector<std::string> addresses = options_.addresses;
    if (addresses.empty() && expected.hasFamily(ZEL_RTM_IPV4_UNICAST)) addresses = chosenAddresses;
    const std::size_t step = table_.rows.size() / addressesAsked + 1;
    for (std::size_t i = 0; addresses.size() < addressesAsked && options_.addresses.empty() && i < table_.rows.size();
         i += step) {
        char text[INET6_ADDRSTRLEN];
        addresses.push_back(rtm_inet_ntop(table_.rows[i].family, table_.rows[i].prefix, text, sizeof text));
    }
    printf("\nLongest matches:\n  %-18s %-20s %-16s %s\n", "address", "prefix", "next hop", "AS path");
    for (const std::string &address : addresses) askFor(address);
}

bool Demo::compare(const Expected &expected) {
    std::uint64_t routes = 0;
    const long differences = expected.compare(address_, options_.peers, routes);
    if (differences < 0) {
        printf("\nThe manager did not hand over its table.\n");
        return false;
    }
    printf("\nThe manager's table: %s prefixes, %s routes; %s\n", grouped(expected.prefixes()).c_str(),
           grouped(routes).c_str(),
           differences == 0
               ? "the same as the file."
               : (grouped(static_cast<std::uint64_t>(differences)) + " differences from the file.").c_str());
    return differences == 0;
}

void Demo::sumUp(const Expected &expected) {
    std::uint64_t counters[ZEL_RTM_COUNTERS] = {};
    zelRtmGetCounters(&address_, counters);
    Report sum;
    for (const Report &report : cpu_.reports())
        for (const auto &[name, value] : report) sum[name] += value;
    const auto line = [](const char *name, double value) {
        printf("  %-20s %14s\n", name, grouped(static_cast<std::uint64_t>(value)).c_str());
    };
    printf("\nSummary:\n");
    line("rows read", static_cast<double>(rowsRead_));
    if (!options_.policy.empty()) line("rows permitted", static_cast<double>(table_.rows.size()));
    line("distinct prefixes", static_cast<double>(expected.prefixes()));
    if (options_.peers > 1) line("sources", options_.peers);
    line("batches", sum["batches"]);
    line("datagrams", sum["datagrams"]);
    line("retransmissions", sum["retransmitted"]);
    line("drops", static_cast<double>(counters[ZEL_RTM_COUNT_DROPPED_BY_HOST]));
    if (options_.kills) line("recoveries", sum["recoveries"]);
    printf("  %-20s %14.3f\n", "seconds", secondsOfSources());
    if (!options_.policy.empty())
        printf("  %-20s %14.3f\n", "seconds of policy", sum["filter-seconds"] / options_.peers);
    if (table_.pathsCut > 0) line("AS paths cut", static_cast<double>(table_.pathsCut));
    if (table_.communitiesCut > 0) line("communities left out", static_cast<double>(table_.communitiesCut));
}

int Demo::run() {
    if (!read()) return 1;
    rowsRead_ = table_.rows.size();
    printf("%s rows, %s distinct prefixes.\n", grouped(rowsRead_).c_str(),
           grouped(Expected(table_).prefixes()).c_str());
    printf("Starting a task manager, a route table manager%s and %u %s ...\n",
           options_.policy.empty() ? "" : ", a manager of policy lists", options_.peers,
           options_.peers == 1 ? "source" : "sources");
    const std::vector<std::string> services(sourceServices.begin(), sourceServices.begin() + options_.peers);
    if (!cpu_.start(services, options_.table, options_.policy, options_.kills))
        return fail("the programs cannot be started");
    if (!open() || !awaitManager(0)) return fail("the route table manager did not come up");
    if (zelRtmRegisterNonRtProtoClient(ownService, ZEL_RTM_IPV4_UNICAST, "demo", &handle_, &address_) != 0)
        return fail("the route table manager did not take us as a client");
    if (!options_.policy.empty() && !filter()) return fail("the policy lists did not come up");
    const Expected expected(table_);
    if (!awaitRoutes()) return fail("the routes did not arrive");
    ask(expected);
    const bool isSame = compare(expected);
    sumUp(expected);
    zelIpcClose(address_.taskKey);
    if (!cpu_.stop()) return fail("the programs did not end by themselves");
    return isSame ? 0 : 1;
}

}  // namespace

int demonstrate(const Options &options) {
    const int status = Demo(options).run();
    zelPlatformUnlinkSegments();
    return status;
}

}  // namespace zeldemo
