// Two route processors on one host: two task managers with their tasks, each with an address and shared memory of its
// own. This process is a task of the standby, and so sees the primary as other processors do: through the link, and by
// messages to its managers. In the end every process of the primary is killed at once.
#include "two.h"

#include <arpa/inet.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <map>

#include "comparison.h"
#include "cpu.h"
#include "multicast.h"
#include "programs/support/program.h"
#include "programs/support/table_file.h"
#include "progress.h"
#include "slots.h"
#include "zel/kernel.h"
#include "zel/platform.h"
#include "zel/resmgr.h"
#include "zel/rtm.h"

namespace zeldemo {
namespace {

using zel::programs::isStopping;
using zel::programs::monotonicSeconds;

constexpr int ownService = 87;  // TEST_TSK
constexpr std::size_t mostRows = 20'000;
constexpr std::uint32_t otherProcessor = 0x00800000;  // the bit in which the addresses of the two differ
constexpr unsigned transactionWord = 32;
constexpr int answerSeconds = 2;
constexpr double startSeconds = 30, stepSeconds = 20;

std::string dotted(std::uint32_t address) {
    const in_addr raw{htonl(address)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &raw, text, sizeof text);
}

template <class Condition>
bool eventually(double seconds, Condition holds) {
    const double deadline = monotonicSeconds() + seconds;
    while (!holds()) {
        if (isStopping() || monotonicSeconds() > deadline) return false;
        taskDelay(1);
    }
    return true;
}

// The first rows of a table, in a file of their own while the object lives.
class FirstRows {
public:
    FirstRows() { close(mkstemp(path_)); }
    ~FirstRows() { unlink(path_); }
    FirstRows(const FirstRows &) = delete;
    FirstRows &operator=(const FirstRows &) = delete;

    const char *path() const { return path_; }
    bool copy(const std::string &table) {
        std::ofstream file(path_);
        std::size_t rows = 0;
        return zel::programs::readLines(table,
                                        [&](std::string_view line) {
                                            if (rows++ < mostRows) file << line << '\n';
                                        }) &&
               file.flush().good();
    }

private:
    char path_[24] = "/tmp/zeldemo.XXXXXX";
};

zelMrtmRoute multicastRoute(std::uint8_t group) {
    zelMrtmRoute route{};
    const std::uint8_t address[4] = {239, 1, 1, group}, source[4] = {10, 0, 0, 1};
    mrtm_fast_copy(route.group, address, sizeof address);
    mrtm_fast_copy(route.source, source, sizeof source);
    route.listKind = ZEL_MRTM_LISTS_OF_ALL;
    ifmIfList members;
    std::uint32_t map[IFM_IFLIST_MAP_WORDS];
    IFM_IFLIST_INIT(&members);
    IFM_IFLIST_ADD(&members, ifmCreateIfIndex(IFM_TYPE_PORT_CHANNEL, 0, 0, group));
    const auto behindLast = static_cast<std::uint16_t>(100 + 10 * group);
    for (std::uint16_t vlan = 100; vlan < behindLast; ++vlan)
        IFM_IFLIST_ADD(&members, ifmCreateIfIndex(IFM_TYPE_VLAN, 0, 0, vlan));
    ifmIfListToMap(&members, map);
    ifmMapToBytes(map, route.lists[0]);
    IFM_IFLIST_DESTROY(&members);
    return route;
}

std::string describeInterfaces(const std::uint32_t *map) {
    char name[IFM_NAME_SIZE];
    ifmIfList members;
    IFM_IFLIST_INIT(&members);
    ifmIfListFromMap(&members, map);
    std::string text = std::to_string(IFM_IFLIST_COUNT(&members)) + " interfaces, the first " +
                       ifmIfIndexToName(IFM_IFLIST_NEXT(&members, 0), name);
    IFM_IFLIST_DESTROY(&members);
    return text;
}

class Two {
public:
    int run(const std::string &table);

private:
    bool start();
    bool awaitProcessors();
    bool showRoutes();
    bool showRequest();
    bool showMulticast();
    bool showSlots();
    bool fail(const char *why);

    bool askPrimary(SlotMessage &question);
    bool askStandby(SlotMessage &question);
    bool ask(SlotMessage &question) { return hasPrimary_ ? askPrimary(question) : askStandby(question); }
    bool addSlot(const char *route);
    bool isStillHeld(const std::string &route, std::int32_t slot);
    bool killPrimary();
    bool end();
    void sumUp() const;

    const std::uint32_t standbyAddress_ = zelPlatformIpcAddress(), primaryAddress_ = standbyAddress_ ^ otherProcessor;
    FirstRows rows_;
    Cpu primary_, standby_;
    bool hasPrimary_ = true;
    zelIpcAddr address_{};
    zel::programs::TableFile table_;
    std::map<std::string, std::int32_t> held_;  // slots by route
    std::uint32_t linkRequests_ = 0, transactions_ = 0;
    std::uint64_t routes_ = 0;
    unsigned multicastRoutes_ = 0, survivors_ = 0;
    double takeOverSeconds_ = 0;
};

bool Two::fail(const char *why) {
    if (isStopping()) return false;
    fprintf(stderr, "zeldemo: %s\nThe primary said:\n", why);
    primary_.showLog();
    fprintf(stderr, "The standby said:\n");
    standby_.showLog();
    return false;
}

// ---- Start ----------------------------------------------------------------------------------------------------------

bool Two::start() {
    const std::string primary = dotted(primaryAddress_), standby = dotted(standbyAddress_);
    printf("Starting two route processors, %s as the primary and %s as its standby ...\n", primary.c_str(),
           standby.c_str());
    const bool isStarted =
        primary_.run({"--address", primary, "--spawn", "RTM zelrtmd", "--spawn",
                      std::string("BGP zelroutes --table ") + rows_.path(), "--spawn", "IRC zelircd --peer " + standby,
                      "--spawn", "RESMGR zeldemo --slots primary --peer " + standby}) &&
        standby_.run({"--remote", "RTM=" + primary, "--spawn", "MRTM zelmrtmd", "--spawn",
                      "IRC zelircd --peer " + primary, "--spawn", "RESMGR zeldemo --slots standby --peer " + primary});
    const int key = zelIpcOpen(ownService, 0);
    if (!isStarted || key < 0) return fail("the programs cannot be started");
    address_.service = ownService;
    address_.taskKey = static_cast<std::uint32_t>(key);
    return awaitProcessors();
}

// The tasks of each processor start in order, so that the last one answers when all are there.
bool Two::awaitProcessors() {
    SlotMessage report;
    if (!eventually(startSeconds, [] { return irc_isLinkUp() != 0; })) return fail("the link did not come up");
    printf("... the link between them is up, %s.\n", ircGetHAComptWithPeerRpm() ? "compatible" : "not compatible");
    const bool areThere = eventually(startSeconds, [&] { return askPrimary(report); }) &&
                          eventually(startSeconds, [&] { return askStandby(report); });
    return areThere || fail("a route processor did not come up");
}

// ---- Routes ---------------------------------------------------------------------------------------------------------

bool Two::showRoutes() {
    const Expected expected(table_);
    std::uint32_t handle = 0;
    if (zelRtmRegisterNonRtProtoClient(ownService, ZEL_RTM_IPV4_UNICAST, "demo", &handle, &address_) != 0)
        return fail("the route table manager did not take us as a client");
    const bool haveArrived = eventually(stepSeconds, [&] {
        std::uint64_t counters[ZEL_RTM_COUNTERS] = {};
        return zelRtmGetCounters(&address_, counters) == 0 && counters[ZEL_RTM_COUNT_ADDS] >= table_.rows.size();
    });
    if (!haveArrived) return fail("the routes did not arrive");
    const long differences = expected.compare(address_, 1, routes_);
    printf("\nRoutes, pushed on the primary and read from the standby:\n  %s rows; %s prefixes, %s routes; %s\n",
           grouped(table_.rows.size()).c_str(), grouped(expected.prefixes()).c_str(), grouped(routes_).c_str(),
           differences == 0 ? "the same as the file." : "not the same as the file.");
    return differences == 0 || fail("the tables differ");
}

// ---- The link -------------------------------------------------------------------------------------------------------

bool Two::askPrimary(SlotMessage &question) {
    std::uint8_t message[SlotMessage::length] = {}, answer[SlotMessage::length];
    question.write(message);
    Irc_setIrcHeader(message + ZEL_IRC_HDR_OFFSET, address_.taskKey, ZEL_IRC_REQUEST, slotService, 0,
                     SlotMessage::length - ZEL_IRC_MIN_MESSAGE);
    const int length =
        zelIrcPeerRpmSendWait(address_.taskKey, ownService, 0, message, sizeof message, 1, SlotMessage::type, answer,
                              sizeof answer, answerSeconds, ++transactions_, nullptr);
    if (length != SlotMessage::length) return false;
    question = SlotMessage::read(answer);
    ++linkRequests_;
    return true;
}

bool Two::askStandby(SlotMessage &question) {
    std::uint8_t message[SlotMessage::length] = {};
    question.write(message);
    zelIpcHdrSet32(message, transactionWord, ++transactions_);
    zelIpcSetTargetHeader(message, standbyAddress_, 0, slotService, 0);
    if (zelIpcSendWait(address_.taskKey, message, sizeof message, sizeof message, answerSeconds, SlotMessage::type) !=
        SlotMessage::length)
        return false;
    question = SlotMessage::read(message);
    return true;
}

bool Two::showRequest() {
    SlotMessage report;
    const double begin = monotonicSeconds();
    if (!askPrimary(report)) return fail("the request over the link was not answered");
    printf(
        "\nA request over the link, and its answer:\n  \"which are you?\"      \"the %s, %u slots taken\", %.2f ms\n",
        report.isPrimary ? "primary" : "standby", report.taken, (monotonicSeconds() - begin) * 1000);
    return report.isPrimary || fail("somebody else answered");
}

// ---- Multicast ------------------------------------------------------------------------------------------------------

bool Two::showMulticast() {
    MulticastClient client(address_);
    if (!client.open()) return fail("the multicast route table manager did not take us as a client");
    for (std::uint8_t group = 1; group <= MRTM_MAX_REQS; ++group) client.add(multicastRoute(group));
    if (!client.settle(stepSeconds)) return fail("the multicast batch was not acknowledged");
    printf("\nA batch of multicast routes, asked back from the manager:\n");
    for (std::uint8_t group = 1; group <= MRTM_MAX_REQS; ++group) {
        const zelMrtmRoute route = multicastRoute(group);
        std::uint32_t sent[IFM_IFLIST_MAP_WORDS], kept[IFM_IFLIST_MAP_WORDS];
        ifmMapFromBytes(route.lists[0], sent);
        if (!client.fetch(route, kept)) return fail("the manager does not have the route");
        printf("  239.1.1.%-10u %s\n", group, describeInterfaces(kept).c_str());
        if (!std::equal(sent, sent + IFM_IFLIST_MAP_WORDS, kept)) return fail("these are not its interfaces");
        ++multicastRoutes_;
    }
    return true;
}

// ---- Slots ----------------------------------------------------------------------------------------------------------

bool Two::addSlot(const char *route) {
    SlotMessage question{SlotRequest::add, route};
    if (!ask(question) || question.result != ZEL_RES_OK) return fail("no slot was given");
    printf("  %-18s slot %d\n", route, question.slot);
    for (const auto &[owner, slot] : held_)
        if (slot == question.slot) return fail("which is another's");
    held_[route] = question.slot;
    return true;
}

bool Two::isStillHeld(const std::string &route, std::int32_t slot) {
    SlotMessage question{SlotRequest::find, route};
    const bool isSame = ask(question) && question.slot == slot;
    printf("  %-18s slot %d, %s\n", route.c_str(), question.slot,
           isSame ? "as before" : "which was another one before");
    survivors_ += isSame;
    return isSame || fail("the standby did not keep what the primary had handed out");
}

bool Two::killPrimary() {
    SlotMessage report;
    printf("Killing the primary ...\n");
    const double begin = monotonicSeconds();
    const int processes = primary_.kill({"--address", dotted(primaryAddress_)});
    hasPrimary_ = false;
    if (!eventually(stepSeconds, [&] { return askStandby(report) && report.isPrimary; }))
        return fail("the standby did not take over");
    takeOverSeconds_ = monotonicSeconds() - begin;
    printf("... its %d processes are gone, and the standby took over after %.2f s.\n", processes, takeOverSeconds_);
    return true;
}

bool Two::showSlots() {
    printf("\nSlots for routes, handed out by the primary:\n");
    SlotMessage report;
    if (!eventually(stepSeconds, [&] { return askStandby(report) && report.isCopied; }))
        return fail("the standby has no copy");
    for (const char *route : {"10.0.0.0/8", "10.1.0.0/16", "10.2.0.0/16", "10.3.0.0/16"})
        if (!addSlot(route)) return false;
    SlotMessage drop{SlotRequest::drop, "10.1.0.0/16"};
    if (!ask(drop) || drop.result != ZEL_RES_OK) return fail("the slot was not taken back");
    printf("  %-18s removed\n", drop.route.c_str());
    held_.erase(drop.route);
    if (!addSlot("10.4.0.0/16") || !killPrimary()) return false;
    for (const auto &[route, slot] : held_)
        if (!isStillHeld(route, slot)) return false;
    for (const char *route : {"10.5.0.0/16", "10.6.0.0/16", "10.7.0.0/16", "10.8.0.0/16"})
        if (!addSlot(route)) return false;
    SlotMessage surplus{SlotRequest::add, "10.9.0.0/16"};
    if (!ask(surplus) || surplus.result != ZEL_RES_NO_INDEX) return fail("there are more slots than there were");
    printf("  %-18s no slot is left\n", surplus.route.c_str());
    return true;
}

// ---- End ------------------------------------------------------------------------------------------------------------

bool Two::end() {
    zelIpcClose(address_.taskKey);
    if (!standby_.stop()) return fail("the programs did not end by themselves");
    // Orphans have become our children.
    return (waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) || fail("a process stayed behind");
}

void Two::sumUp() const {
    const auto line = [](const char *name, std::uint64_t value) {
        printf("  %-20s %14s\n", name, grouped(value).c_str());
    };
    printf("\nSummary:\n");
    line("routes", routes_);
    line("link requests", linkRequests_);
    line("multicast routes", multicastRoutes_);
    line("slots kept", survivors_);
    line("slots held", held_.size());
    printf("  %-20s %14.2f\n", "take-over seconds", takeOverSeconds_);
}

int Two::run(const std::string &table) {
    printf("Reading %s ...\n", table.c_str());
    if (!rows_.copy(table) || !readTable(rows_.path(), table_) || table_.rows.empty()) {
        fprintf(stderr, "zeldemo: %s holds no route that can be read\n", table.c_str());
        return 1;
    }
    printf("its first %s rows.\n", grouped(table_.rows.size()).c_str());
    if (!start() || !showRoutes() || !showRequest() || !showMulticast() || !showSlots()) return 1;
    sumUp();
    return end() ? 0 : 1;
}

}  // namespace

void prepareTwo() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

int demonstrateTwo(const std::string &table) {
    const int status = Two().run(table);
    zelPlatformUnlinkSegments();
    return status;
}

}  // namespace zeldemo
