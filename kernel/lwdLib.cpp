// Watchdogs: calls deferred to the exception task, which goes through them once a tick.
//
// A started watchdog fires at the next pass, whatever delay was asked for; starting one that runs only replaces its
// routine and parameter. Callers count on both.
#include "kernel/countdown_list.h"

struct zelWdog {
    struct Due {
        zelWdogRoutine routine = nullptr;
        intptr_t parameter = 0;
        void call() const { routine(parameter); }
    };

    Due countDown() {
        if (remaining <= 0 || --remaining > 0) return {};
        return {routine, parameter};
    }

    zel::Mutex own{zel::LockRank::object, "&(wdId->wdog_lock)"};
    int32_t remaining = 0;  // ticks; 0 or less: not running
    zelWdogRoutine routine = nullptr;
    intptr_t parameter = 0;
    zelWdog *next = nullptr;
};

namespace {

constinit zel::kernel::CountdownList<zelWdog> watchdogs("&wdog_list_lock");

}  // namespace

zelWdogId wdCreate(void) {
    return watchdogs.create();
}

int wdStart(zelWdogId watchdog, int, zelWdogRoutine routine, intptr_t parameter) {
    return watchdogs.with(watchdog, [&](zelWdog &found) {
        found.routine = routine;
        found.parameter = parameter;
        if (found.remaining <= 0) found.remaining = 1;
    });
}

int wdCancel(zelWdogId watchdog) {
    return watchdogs.with(watchdog, [](zelWdog &found) { found.remaining = 0; });
}

int wdDelete(zelWdogId watchdog) {
    return watchdogs.destroy(watchdog);
}

void process_timer_list(void) {
    watchdogs.pass();
}
