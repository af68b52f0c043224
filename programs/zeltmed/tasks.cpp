#include "tasks.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zel/ipc.h"

namespace zeltmed {
namespace {

constexpr auto startUpTime = std::chrono::seconds(10);
constexpr auto respawnInterval = std::chrono::seconds(1);
constexpr auto respawnPause = std::chrono::milliseconds(100);  // a signal may be meant for the whole group, us included
constexpr int statusCannotRun = 127;
constexpr int statusOfSignal = 128;

int exitStatusOf(int waitStatus) {
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : statusOfSignal + WTERMSIG(waitStatus);
}

std::string describeEnd(int waitStatus) {
    if (WIFEXITED(waitStatus)) return "ended with status " + std::to_string(WEXITSTATUS(waitStatus));
    return std::string("was ended by signal ") + std::to_string(WTERMSIG(waitStatus)) + " (" +
           strsignal(WTERMSIG(waitStatus)) + ")";
}

}  // namespace

SpawnedTasks::SpawnedTasks(const std::vector<SpawnOrder> &orders, const std::vector<Role> &until, bool respawn)
    : respawn_(respawn), awaitsAny_(!until.empty()) {
    for (const SpawnOrder &order : orders) {
        const bool endsUs = std::find(until.begin(), until.end(), order.role) != until.end();
        tasks_.push_back(Task{order, endsUs, 0, true, {}, {}});
        awaited_ += endsUs ? 1 : 0;
    }
}

pid_t SpawnedTasks::advance() {
    watchStartUp();
    if (starting_ != nullptr || isStopping_) return 0;
    const auto due = std::find_if(tasks_.begin(), tasks_.end(),
                                  [](const Task &task) { return task.isWaiting && Clock::now() >= task.notBefore; });
    return due != tasks_.end() ? spawn(*due) : 0;
}

bool SpawnedTasks::isBusy() const {
    if (isStopping_) return true;
    return starting_ != nullptr ||
           std::any_of(tasks_.begin(), tasks_.end(), [](const Task &task) { return task.isWaiting; });
}

pid_t SpawnedTasks::spawn(Task &task) {
    std::vector<char *> arguments;
    for (std::string &argument : task.order.arguments) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    const Role role = task.order.role;
    task.isWaiting = false;
    task.pid = zelTmeSpawn(task.order.path.c_str(), arguments.data(), role.service, role.instance, ZEL_IPC_MIN_SERVICE,
                           static_cast<int>(zel_sysGetInstance()));
    if (task.pid <= 0) {
        printf("zeltmed: %s cannot be spawned: %s\n", describe(role).c_str(), strerror(errno));
        task.pid = 0;
        finish(task, statusCannotRun);
        return 0;
    }
    printf("zeltmed: %s spawned as process %d\n", describe(role).c_str(), static_cast<int>(task.pid));
    task.spawnedAt = Clock::now();
    starting_ = &task;
    return task.pid;
}

bool SpawnedTasks::hasStartedUp(const Task &task) const {
    zelTmeEndpoint endpoint;
    for (uint32_t cursor = 0; zelTmeNextEndpoint(&cursor, &endpoint) == 1;)
        if (endpoint.pid == task.pid && endpoint.service == task.order.role.service &&
            endpoint.instance == task.order.role.instance)
            return (endpoint.flags & ZEL_IPC_FLAG_STARTED) != 0;
    return false;
}

void SpawnedTasks::watchStartUp() {
    if (starting_ == nullptr) return;
    if (hasStartedUp(*starting_)) {
        starting_ = nullptr;
    } else if (Clock::now() - starting_->spawnedAt > startUpTime) {
        printf("zeltmed: %s has not started up, process %d is killed\n", describe(starting_->order.role).c_str(),
               static_cast<int>(starting_->pid));
        kill(starting_->pid, SIGKILL);
        starting_->spawnedAt = Clock::now();
    }
}

void SpawnedTasks::noteReady(pid_t pid) {
    if (starting_ != nullptr && starting_->pid == pid) starting_ = nullptr;
}

bool SpawnedTasks::noteEnd(pid_t pid, int waitStatus) {
    const auto found = std::find_if(tasks_.begin(), tasks_.end(), [=](const Task &task) { return task.pid == pid; });
    if (found == tasks_.end()) return false;
    Task &task = *found;
    printf("zeltmed: %s, process %d, %s\n", describe(task.order.role).c_str(), static_cast<int>(pid),
           describeEnd(waitStatus).c_str());
    if (starting_ == &task) starting_ = nullptr;
    task.pid = 0;
    if (respawn_ && WIFSIGNALED(waitStatus) && !isStopping_) {
        task.isWaiting = true;
        task.notBefore = std::max(task.spawnedAt + respawnInterval, Clock::now() + respawnPause);
    } else {
        finish(task, exitStatusOf(waitStatus));
    }
    return true;
}

void SpawnedTasks::finish(Task &task, int status) {
    if (!task.endsUs || isStopping_) return;
    --awaited_;
    if (exitStatus_ == 0) exitStatus_ = status;
}

bool SpawnedTasks::isDone() const {
    return awaitsAny_ && awaited_ == 0;
}

void SpawnedTasks::stop(int signal) {
    isStopping_ = true;
    for (Task &task : tasks_) {
        task.isWaiting = false;
        if (task.pid != 0) kill(task.pid, signal);
    }
}

bool SpawnedTasks::anyLives() const {
    return std::any_of(tasks_.begin(), tasks_.end(), [](const Task &task) { return task.pid != 0; });
}

}  // namespace zeltmed
