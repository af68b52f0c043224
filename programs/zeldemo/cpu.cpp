#include "cpu.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"
#include "zel/rtm.h"

extern char **environ;

namespace zeldemo {
namespace {

constexpr int stopSeconds = 15;
constexpr int pollTicks = 1;
constexpr int firstDistance = 20;
constexpr int distanceStep = 10;

std::string ownDirectory() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string self(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return self.substr(0, self.rfind('/') + 1);
}

// For a text that a shell splits into words.
std::string quoted(const std::string &text) {
    std::string result = "'";
    for (char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

std::string absolute(const std::string &path) {
    char *resolved = realpath(path.c_str(), nullptr);
    std::string result = resolved ? resolved : path;
    free(resolved);
    return result;
}

pid_t spawn(const std::vector<std::string> &words, const std::string &output) {
    std::vector<char *> argv;
    for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    // Our signals are blocked for a task of ours to take; the child begins with none blocked, in a group of its own.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

}  // namespace

void isolate() {
    const auto pid = static_cast<unsigned>(getpid());
    char text[32];
    snprintf(text, sizeof text, "127.%u.%u.%u", 1 + (pid >> 16) % 250, pid >> 8 & 255, 1 + (pid & 255) % 254);
    setenv("ZEL_IPC_ADDR", text, 0);
    snprintf(text, sizeof text, "zeldemo%u", pid);
    setenv("ZEL_SHM_PREFIX", text, 0);
}

Cpu::Cpu() {
    std::string pattern = "/tmp/zeldemo.XXXXXX";
    if (mkdtemp(pattern.data())) directory_ = pattern;
}

Cpu::~Cpu() {
    if (manager_ > 0) stop();
    if (directory_.empty()) return;
    removeReports();
    unlink((directory_ + "/log").c_str());
    rmdir(directory_.c_str());
}

bool Cpu::start(const std::vector<std::string> &services, const std::string &table, const std::string &policy,
                bool respawns) {
    services_ = services;
    std::vector<std::string> words = {"--spawn", "RTM zelrtmd"};
    std::string filter;
    if (!policy.empty()) {
        words.insert(words.end(), {"--spawn", "ACL zelaclmgrd --config " + quoted(absolute(policy))});
        for (const char *option : {" --prefix-list ", " --as-path-list ", " --community-list "})
            filter += option + std::string(policyList);
    }
    int distance = firstDistance;
    for (const std::string &service : services) {
        std::string order = service + " zelroutes --table ";
        order.append(quoted(absolute(table))).append(" --distance ").append(std::to_string(distance)).append(filter);
        words.insert(words.end(), {"--spawn", order.append(" --report ").append(quoted(reportFile(service)))});
        distance += distanceStep;
    }
    if (respawns) words.push_back("--respawn");
    return run(words);
}

bool Cpu::run(std::vector<std::string> words) {
    if (directory_.empty()) return false;
    words.insert(words.begin(), ownDirectory() + "zeltmed");
    manager_ = spawn(words, directory_ + "/log");
    return manager_ > 0;
}

bool Cpu::isRunning() {
    if (manager_ > 0 && waitpid(manager_, nullptr, WNOHANG) == manager_) manager_ = -1;
    return manager_ > 0;
}

pid_t Cpu::routeManager() const {
    zelTmeEndpoint endpoint;
    for (std::uint32_t cursor = 0; zelTmeNextEndpoint(&cursor, &endpoint) == 1;)
        if (endpoint.service == ZEL_RTM_SERVICE) return endpoint.pid;
    return 0;
}

std::string Cpu::reportFile(const std::string &service) const {
    return directory_ + "/" + service;
}

std::size_t Cpu::finished() const {
    std::size_t count = 0;
    for (const std::string &service : services_) count += access(reportFile(service).c_str(), R_OK) == 0;
    return count;
}

std::vector<Report> Cpu::reports() const {
    std::vector<Report> all;
    for (const std::string &service : services_) {
        std::ifstream file(reportFile(service));
        Report &report = all.emplace_back();
        double value;
        for (std::string name; file >> name >> value;) report[name] = value;
    }
    return all;
}

void Cpu::removeReports() {
    for (const std::string &service : services_) unlink(reportFile(service).c_str());
}

bool Cpu::stop() {
    if (manager_ <= 0) return false;
    ::kill(manager_, SIGTERM);
    bool hasEnded = false;
    const uint64_t deadline = tick64Get() + static_cast<uint64_t>(stopSeconds * sysClkRateGet());
    while (!(hasEnded = !isRunning()) && tick64Get() < deadline) taskDelay(pollTicks);
    if (!hasEnded) {
        ::kill(-manager_, SIGKILL);
        waitpid(manager_, nullptr, 0);
        manager_ = -1;
    }
    return hasEnded;
}

int Cpu::kill(std::vector<std::string> words) {
    if (manager_ <= 0) return 0;
    ::kill(-manager_, SIGKILL);
    int processes = 0;
    while (waitpid(-manager_, nullptr, 0) > 0) ++processes;
    manager_ = -1;
    words.push_back("clean");
    if (run(std::move(words))) waitpid(manager_, nullptr, 0);
    manager_ = -1;
    return processes;
}

void Cpu::showLog() const {
    std::ifstream log(directory_ + "/log");
    for (std::string line; std::getline(log, line);) fprintf(stderr, "  %s\n", line.c_str());
}

}  // namespace zeldemo
