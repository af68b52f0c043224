// Rows of the benchmark report: one thing of ours against one or more peers that do the same, measured in the same run.
//
//     static void takeAndGive(benchmark::State &state) {
//         const zelSemId id = semBCreate(ZEL_SEM_FIFO, 1);              // set-up is not measured
//         for (auto _ : state) {                                        // one iteration is one operation
//             semTake(id, WAIT_FOREVER);
//             semGive(id);
//         }
//         semDelete(id);
//     }
//     static void waitAndPost(benchmark::State &state) { ... }
//
//     ZEL_ROW("semTake + semGive, uncontended", "ns", time)
//         .ours(takeAndGive)
//         .peer("sem_t pair", waitAndPost, 2.0, 1.3);                   // bar 2.0, stretch 1.3
//
//     ZEL_ROW("byte ring, two tasks", "bytes/s", rate).ours(ring).peer("boost::lockfree::spsc_queue", spsc, 1.0);
//
// Kind `time`: seconds per operation in the unit given (s, ms, us, ns), ratio ours/peer, lower is better. Kind `rate`:
// operations per second, higher is better. Kind `size`: what the function leaves in state.counters["size"], in the unit
// given, lower is better. An iteration is one operation unless the function calls
// state.SetItemsProcessed(operations) or, for the unit "bytes/s", state.SetBytesProcessed(bytes) after its loop.
// A function that cannot measure calls state.SkipWithError(why) and leaves; the row is reported as failed.
//
// Protocol. The process has an idle second thread. Everything runs on one CPU, also threads and children that a
// function starts, because a wake-up across CPUs is noise; a row that is about several CPUs says .threads(n): its
// functions run in n threads at once, on n CPUs. Own and peers take turns, repetition by repetition (five, three with
// --quick), and each is represented by its median. Real-time scheduling is off, so that both sides are scheduled alike.
//
// A row about something that is long by itself (a whole table) says .once(): one iteration per repetition.
//
// Children: tests/support/child.h works here as it does in tests. Each program has an IPC address and a memory prefix
// of its own, which its children inherit.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

#include "bench/support/figures.h"

namespace zel::bench {

using Function = std::function<void(benchmark::State &)>;

class Row {
public:
    struct Contender {
        std::string name;
        Function function;
        double bar;
        double stretch;
    };

    Row(std::string name, std::string unit, Kind kind);
    Row(const Row &) = delete;

    Row &ours(Function function);
    // `bar` and `stretch` are ratios to this peer; noBar only reports the ratio.
    Row &peer(std::string name, Function function, double bar = noBar, double stretch = noBar);
    Row &threads(int count);
    Row &once();

    const std::string &name() const { return name_; }
    const std::string &unit() const { return unit_; }
    Kind kind() const { return kind_; }
    int threadCount() const { return threads_; }
    bool runsOnce() const { return once_; }
    // Ours first, then the peers.
    const std::vector<Contender> &contenders() const { return contenders_; }

private:
    std::string name_;
    std::string unit_;
    Kind kind_;
    int threads_ = 1;
    bool once_ = false;
    std::vector<Contender> contenders_;
};

// Adds a row to the program's report; rows are measured in the order of their registration.
Row &addRow(const char *name, const char *unit, Kind kind);

}  // namespace zel::bench

#define ZEL_ROW_NAME2(line) zelBenchRow##line
#define ZEL_ROW_NAME(line) ZEL_ROW_NAME2(line)
#define ZEL_ROW(name, unit, kind)                                     \
    [[maybe_unused]] static zel::bench::Row &ZEL_ROW_NAME(__LINE__) = \
        zel::bench::addRow(name, unit, zel::bench::Kind::kind)
