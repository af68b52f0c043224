// One loop waits for datagrams on the queues, for the end of processes (a descriptor each) and for the signal to end.
//
// A task is entered when it reports ready, and only when what it reports is true: the endpoint it names belongs to the
// process it names, on this CPU. Once a second the endpoint table is walked, for processes that opened an endpoint and
// have not reported, and for entries whose process is gone; so the table is right also after a manager that was killed.
#include "manager.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <vector>

#include "table.h"
#include "tasks.h"
#include "zel/ipc.h"
#include "zel/platform.h"

namespace zeltmed {
namespace {

constexpr std::uint32_t messageReady = 1601;
constexpr int readyBytes = 72;
constexpr unsigned offsetMessageType = 12;
constexpr unsigned offsetSourceAddress = 40;
constexpr unsigned offsetSourceQueue = 44;
constexpr unsigned offsetProcess = 64;
constexpr unsigned offsetService = 68;

constexpr auto walkInterval = std::chrono::seconds(1);
constexpr auto endTime = std::chrono::seconds(5);
constexpr int busyPollMilliseconds = 20;
constexpr int idlePollMilliseconds = 1000;

int endFd = -1;

void endNow(int) {
    const int savedErrno = errno;
    const std::uint64_t one = 1;
    if (write(endFd, &one, sizeof one) < 0) { /* the counter is full: it is awake */
    }
    errno = savedErrno;
}

struct ReadyReport {
    Role role;
    pid_t pid;
    std::uint32_t address;
};

// Nothing when the message is no ready report, or contradicts itself.
std::optional<ReadyReport> readReport(const void *message, int length) {
    if (length < readyBytes || zelIpcHdrGet32(message, offsetMessageType) != messageReady) return std::nullopt;
    const std::uint32_t queue = zelIpcHdrGet32(message, offsetSourceQueue);
    const auto service = static_cast<int>(zelIpcGetServiceFromSvce(queue));
    if (zelIpcHdrGet32(message, offsetService) != static_cast<std::uint32_t>(service)) return std::nullopt;
    return ReadyReport{{service, static_cast<int>(zelIpcGetInstanceFromSvce(queue))},
                       static_cast<pid_t>(zelIpcHdrGet32(message, offsetProcess)),
                       zelIpcHdrGet32(message, offsetSourceAddress)};
}

template <class Visit>
void forEachEntry(Visit visit) {
    for (int service = ZEL_IPC_MIN_SERVICE; service <= ZEL_IPC_MAX_SERVICE; ++service)
        for (int instance = 0; instance < ZEL_IPC_MAX_INSTANCES; ++instance) {
            zelTmeTaskEntry entry{};
            if (zelTmeGetTaskEntry(service, instance, &entry) == 0 && entry.state != ZEL_TME_NONE)
                visit(Role{service, instance}, entry);
        }
}

// Whether the host may give the port to anybody who asks for none in particular.
bool isEphemeral(int port) {
    int low = 0, high = -1;
    if (std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range"); range) range >> low >> high;
    if (port < low || port > high) return false;
    std::ifstream reserved("/proc/sys/net/ipv4/ip_local_reserved_ports");
    for (std::string part; std::getline(reserved, part, ',');) {
        int first = 0, last = 0;
        const int numbers = sscanf(part.c_str(), "%d-%d", &first, &last);
        if (numbers >= 1 && port >= first && port <= (numbers == 2 ? last : first)) return false;
    }
    return true;
}

// A port that is taken for something else keeps the task from starting some day.
void warnOfPorts(const Role &role) {
    const auto port = static_cast<int>(zel_getQueueId(role.service, role.instance, ZEL_IPC_QUEUE_REQUEST));
    if (isEphemeral(port))
        printf(
            "zeltmed: warning: %s uses port %d, which the host also gives to others; reserve it with "
            "net.ipv4.ip_local_reserved_ports\n",
            describe(role).c_str(), port);
}

class Manager {
public:
    explicit Manager(const Options &options)
        : options_(options), spawned_(options.spawns, options.until, options.respawn) {}
    ~Manager();
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    int run();

private:
    bool start();
    void publishGlobals() const;
    bool openEndpoint();
    void clearEntriesWithoutOwner() const;
    void clearRemoteEntries() const;
    void serve();
    void waitForEvents();
    void receive(std::uint32_t queueKey);
    void take(const void *message, int length);
    bool watch(pid_t pid);
    void noteEnd(pid_t pid);
    void walkEndpoints();
    void endTasks();
    void finish();
    void printCounters() const;

    const Options &options_;
    SpawnedTasks spawned_;
    std::uint32_t key_ = 0;
    std::map<pid_t, int> watched_;  // descriptor of each process
    Clock::time_point nextWalk_;
    unsigned entered_ = 0;
    unsigned refused_ = 0;
};

Manager::~Manager() {
    for (const auto &[pid, fd] : watched_) close(fd);
}

int Manager::run() {
    if (!start()) return 1;
    serve();
    endTasks();
    finish();
    return spawned_.exitStatus();
}

bool Manager::start() {
    if (const int pid = runningManager(); pid != 0) {
        fprintf(stderr, "zeltmed: a task manager runs on %s already, as process %d\n",
                dotted(zelPlatformIpcAddress()).c_str(), pid);
        return false;
    }
    if (!openEndpoint()) return false;
    publishGlobals();
    clearRemoteEntries();
    const Role self{ZEL_IPC_MIN_SERVICE, static_cast<int>(zel_sysGetInstance())};
    zelTmeSetTaskEntry(self.service, self.instance, ZEL_TME_HERE, zel_sysGetIpAddr());
    for (const SpawnOrder &order : options_.spawns) warnOfPorts(order.role);
    for (const RemoteTask &remote : options_.remotes)
        zelTmeSetTaskEntry(remote.role.service, remote.role.instance, ZEL_TME_REMOTE, remote.address);
    printf("zeltmed: ready on %s, instance %d, process %d\n", dotted(zel_sysGetIpAddr()).c_str(), self.instance,
           static_cast<int>(getpid()));
    return true;
}

void Manager::publishGlobals() const {
    zelTmeGlobals globals{};
    globals.ipAddress = zelPlatformIpcAddress();
    globals.instance = options_.instance;
    for (std::size_t i = 0; i < 2; ++i)
        globals.masterAddress[i] = i < options_.masters.size() ? options_.masters[i] : globals.ipAddress;
    if (zelTmeSetGlobals(&globals) != 0) perror("zeltmed: the globals cannot be set");
}

// As every task does; nobody spawned this one, so it makes up its identity.
bool Manager::openEndpoint() {
    std::string instance = std::to_string(options_.instance), service = std::to_string(ZEL_IPC_MIN_SERVICE), none = "0";
    std::string program = "zeltmed";
    char *argv[] = {program.data(), service.data(), instance.data(), none.data(), none.data(),
                    none.data(),    none.data(),    none.data(),     none.data(), nullptr};
    const int key = zelTaskStartup(9, argv);
    if (key == ZEL_ERROR) {
        perror("zeltmed: the task manager's endpoint cannot be opened");
        return false;
    }
    key_ = static_cast<std::uint32_t>(key);
    return true;
}

// A process whose end nobody could note, because the manager was killed before it, is no longer here.
void Manager::clearEntriesWithoutOwner() const {
    forEachEntry([](const Role &role, const zelTmeTaskEntry &entry) {
        int owner = 0;
        if (entry.state == ZEL_TME_HERE && zelTaskIsDuplicate(role.service, role.instance, &owner) != 1)
            zelTmeSetTaskEntry(role.service, role.instance, ZEL_TME_NONE, 0);
    });
}

// What an earlier manager was told of other CPUs does not count for this one.
void Manager::clearRemoteEntries() const {
    forEachEntry([](const Role &role, const zelTmeTaskEntry &entry) {
        if (entry.state == ZEL_TME_REMOTE) zelTmeSetTaskEntry(role.service, role.instance, ZEL_TME_NONE, 0);
    });
}

void Manager::serve() {
    for (;;) {
        if (const pid_t pid = spawned_.advance(); pid != 0) watch(pid);
        if (Clock::now() >= nextWalk_) walkEndpoints();
        if (spawned_.isDone()) return;
        pollfd end{endFd, POLLIN, 0};
        if (poll(&end, 1, 0) == 1) return;
        waitForEvents();
    }
}

void Manager::waitForEvents() {
    const std::uint32_t queues[] = {key_ | ZEL_IPC_QUEUE_REQUEST, key_ | ZEL_IPC_QUEUE_RESPONSE};
    std::vector<pollfd> fds{{endFd, POLLIN, 0}};
    for (const std::uint32_t queue : queues) fds.push_back({Key_getSocketFd(queue), POLLIN, 0});
    const std::size_t firstProcess = fds.size();
    std::vector<pid_t> pids;
    for (const auto &[pid, fd] : watched_) {
        fds.push_back({fd, POLLIN, 0});
        pids.push_back(pid);
    }
    if (poll(fds.data(), fds.size(), spawned_.isBusy() ? busyPollMilliseconds : idlePollMilliseconds) <= 0) return;
    for (std::size_t i = 1; i < firstProcess; ++i)
        if (fds[i].revents != 0) receive(queues[i - 1]);
    for (std::size_t i = firstProcess; i < fds.size(); ++i)
        if (fds[i].revents != 0) noteEnd(pids[i - firstProcess]);
}

void Manager::receive(std::uint32_t queueKey) {
    unsigned char message[8192];
    const int length = zelIpcRecv(queueKey, message, sizeof message, 0, 0, 0);
    if (length > 0) take(message, length);
}

void Manager::take(const void *message, int length) {
    const std::optional<ReadyReport> report = readReport(message, length);
    const int key = report ? zelGetTaskKeyFromServiceAndInst(report->role.service, report->role.instance) : ZEL_ERROR;
    const bool isTrue = key != ZEL_ERROR && report->pid > 0 && report->address == zel_sysGetIpAddr() &&
                        zelProcIdByKey(static_cast<std::uint32_t>(key)) == report->pid && watch(report->pid);
    if (!isTrue) {
        ++refused_;
        return;
    }
    ++entered_;
    spawned_.noteReady(report->pid);
    zelTmeSetTaskEntry(report->role.service, report->role.instance, ZEL_TME_HERE, report->address);
    printf("zeltmed: %s is ready, process %d\n", describe(report->role).c_str(), static_cast<int>(report->pid));
}

// False when there is no such process.
bool Manager::watch(pid_t pid) {
    if (pid == getpid() || watched_.count(pid) != 0) return true;
    const auto fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) return false;
    watched_[pid] = fd;
    return true;
}

void Manager::noteEnd(pid_t pid) {
    int status = 0;
    const bool isChild = waitpid(pid, &status, WNOHANG) == pid;
    close(watched_[pid]);
    watched_.erase(pid);
    const int endpoints = zelTmeForget(pid);
    if (isChild && spawned_.noteEnd(pid, status)) return;
    printf("zeltmed: process %d has ended, %d endpoint%s cleared\n", static_cast<int>(pid), endpoints,
           endpoints == 1 ? "" : "s");
}

void Manager::walkEndpoints() {
    nextWalk_ = Clock::now() + walkInterval;
    zelTmeEndpoint endpoint;
    for (uint32_t cursor = 0; zelTmeNextEndpoint(&cursor, &endpoint) == 1;) {
        int owner = 0;
        const bool isOwned = zelTaskIsDuplicate(endpoint.service, endpoint.instance, &owner) == 1;
        if (!isOwned || !watch(endpoint.pid)) zelTmeForget(endpoint.pid);
    }
    clearEntriesWithoutOwner();
}

void Manager::endTasks() {
    spawned_.stop(SIGTERM);
    const Clock::time_point deadline = Clock::now() + endTime;
    bool isKilled = false;
    while (spawned_.anyLives()) {
        if (!isKilled && Clock::now() >= deadline) {
            spawned_.stop(SIGKILL);
            isKilled = true;
        }
        waitForEvents();
    }
}

void Manager::finish() {
    printCounters();
    zelTmeSetTaskEntry(ZEL_IPC_MIN_SERVICE, static_cast<int>(options_.instance), ZEL_TME_NONE, 0);
    zelIpcClose(key_);
    if (zelPlatformUnlinkSegments() != 0) perror("zeltmed: the shared memory cannot be unlinked");
}

void Manager::printCounters() const {
    zelIpcQueueStats request{}, response{};
    zelIpcGetQueueStats(key_ | ZEL_IPC_QUEUE_REQUEST, &request);
    zelIpcGetQueueStats(key_ | ZEL_IPC_QUEUE_RESPONSE, &response);
    printf("zeltmed: ends; %u tasks entered, %u messages refused, datagrams dropped: %" PRIu64 " too short, %" PRIu64
           " without magic, %" PRIu64 " by the host\n",
           entered_, refused_, request.droppedShort + response.droppedShort,
           request.droppedMagic + response.droppedMagic, request.droppedByHost + response.droppedByHost);
}

}  // namespace

int manage(const Options &options) {
    Manager manager(options);
    return manager.run();
}

void prepareEnd() {
    endFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct sigaction action {};
    action.sa_handler = endNow;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

}  // namespace zeltmed
