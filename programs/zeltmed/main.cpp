// zeltmed: the task manager of a CPU. main reads the command line and waits; the work is done in a task, because only
// tasks own endpoints.
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "manager.h"
#include "options.h"
#include "table.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace {

constexpr int managerPriority = 50;

struct Work {
    const zeltmed::Options *options;
    zelSemId done;
    int status;
};

int managerTask(intptr_t work, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
                intptr_t) {
    auto *const ours = reinterpret_cast<Work *>(work);
    ours->status = zeltmed::manage(*ours->options);
    return semGive(ours->done);
}

// main only waits from here on; the tasks were created before and take the signals.
void leaveSignalsToTasks() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

int runManager(const zeltmed::Options &options) {
    zeltmed::prepareEnd();
    if (vx2bsdLibInit() != 0 || vx2bsd_start(1, 1, 0, 0) != ZEL_OK || zelTraceInit() != ZEL_OK) {
        fprintf(stderr, "zeltmed: the kernel layer cannot be started\n");
        return 1;
    }
    if (options.verbose) zelTracePrintOn();
    Work work{&options, semBCreate(ZEL_SEM_FIFO, 0), 1};
    if (taskSpawn("tTme", managerPriority, 0, 0, managerTask, reinterpret_cast<intptr_t>(&work), 0, 0, 0, 0, 0, 0, 0, 0,
                  0) == ZEL_ERROR) {
        fprintf(stderr, "zeltmed: the task cannot be spawned\n");
        return 1;
    }
    leaveSignalsToTasks();
    semTake(work.done, WAIT_FOREVER);
    return work.status;
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    zelPlatformInstallCrashHandler();
    const zeltmed::Options options = zeltmed::parseOptions(argc, argv);
    switch (options.command) {
        case zeltmed::Command::list:
            return zeltmed::list(options);
        case zeltmed::Command::clean:
            return zeltmed::clean();
        case zeltmed::Command::manage:
            break;
    }
    return runManager(options);
}
