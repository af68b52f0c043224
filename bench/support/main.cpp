// Entry of every benchmark program: measures its rows and prints the report.
//
//     bench_<area> [--filter REGEX] [--quick] [--json FILE]
//
// Each contender of a row is a benchmark of its own. They are run one repetition at a time, in turns, so that a slow
// spell of the machine falls on all of them.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <regex>

#include "bench/support/row.h"
#include "tests/support/child.h"
#include "tests/support/isolation.h"
#include "zel/platform.h"

namespace zel::bench {
namespace {

struct Options {
    std::string filter;
    std::string jsonFile;
    int repetitions = 5;
    double secondsPerRepetition = 0.2;
};

std::vector<std::unique_ptr<Row>> &rows() {
    static std::vector<std::unique_ptr<Row>> all;
    return all;
}

// Keeps the one run of a repetition; says nothing.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        if (!runs.empty()) run_ = runs.front();
    }
    const std::optional<Run> &run() const { return run_; }

private:
    std::optional<Run> run_;
};

void pinToCpus(int count) {
    static const cpu_set_t allowed = [] {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    for (int cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&chosen) < count; ++cpu)
        if (CPU_ISSET(cpu, &allowed)) CPU_SET(cpu, &chosen);
    sched_setaffinity(0, sizeof chosen, &chosen);
}

// glibc's locks take a cheaper path while a process has one thread; no user of the library has one.
void startIdleThread() {
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void *) -> void * {
            for (;;) pause();
        },
        nullptr);
    pthread_detach(thread);
}

std::string benchmarkName(std::size_t row, std::size_t contender) {
    return "row" + std::to_string(row) + "." + std::to_string(contender);
}

void registerContenders(std::size_t index, const Options &options) {
    const Row &row = *rows()[index];
    for (std::size_t i = 0; i < row.contenders().size(); ++i) {
        auto *registered = benchmark::RegisterBenchmark(benchmarkName(index, i).c_str(), row.contenders()[i].function);
        registered->UseRealTime()->Threads(row.threadCount());
        if (row.runsOnce())
            registered->Iterations(1);
        else
            registered->MinTime(options.secondsPerRepetition);
    }
}

// What one repetition of a contender measured, in the row's unit; nothing when it gave up.
std::optional<double> measure(std::size_t index, std::size_t contender) {
    const Row &row = *rows()[index];
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector, "^" + benchmarkName(index, contender) + "/");
    const auto &run = collector.run();
    if (!run || run->error_occurred || run->iterations == 0 || run->real_accumulated_time <= 0) {
        fprintf(stderr, "%s: %s: %s\n", row.name().c_str(), row.contenders()[contender].name.c_str(),
                run && run->error_occurred ? run->error_message.c_str() : "nothing was measured");
        return std::nullopt;
    }
    if (row.kind() == Kind::size) return run->counters.at("size").value;
    double perSecond = static_cast<double>(run->iterations) / run->real_accumulated_time;
    for (const char *counter : {"items_per_second", "bytes_per_second"})
        if (const auto found = run->counters.find(counter); found != run->counters.end())
            perSecond = found->second.value;
    return row.kind() == Kind::rate ? perSecond : unitsPerSecond(row.unit()) / perSecond;
}

// One figure per peer; empty when a contender gave up.
std::vector<Figure> measureRow(std::size_t index, const Options &options) {
    const Row &row = *rows()[index];
    pinToCpus(row.threadCount());
    registerContenders(index, options);
    std::vector<std::vector<double>> values(row.contenders().size());
    for (int repetition = 0; repetition < options.repetitions; ++repetition) {
        for (std::size_t i = 0; i < values.size(); ++i) {
            const auto value = measure(index, i);
            if (!value) return {};
            values[i].push_back(*value);
        }
    }
    std::vector<Figure> figures;
    for (std::size_t i = 1; i < values.size(); ++i) {
        const auto &peer = row.contenders()[i];
        figures.push_back({row.name(), row.unit(), row.kind(), median(values[0]), median(values[i]), peer.name,
                           peer.bar, peer.stretch});
    }
    return figures;
}

bool writeJson(const std::string &file, const std::vector<Figure> &figures) {
    FILE *out = fopen(file.c_str(), "w");
    if (out == nullptr) return false;
    fputs("[\n", out);
    for (std::size_t i = 0; i < figures.size(); ++i)
        fprintf(out, "%s%s\n", jsonLine(figures[i]).c_str(), i + 1 < figures.size() ? "," : "");
    fputs("]\n", out);
    return fclose(out) == 0;
}

std::optional<Options> parse(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--quick") {
            options.repetitions = 3;
            options.secondsPerRepetition = 0.05;
        } else if (word == "--filter" && i + 1 < argc) {
            options.filter = argv[++i];
        } else if (word == "--json" && i + 1 < argc) {
            options.jsonFile = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--filter REGEX] [--quick] [--json FILE]\n", argv[0]);
            return std::nullopt;
        }
    }
    return options;
}

int report(const Options &options) {
    const std::regex filter(options.filter);
    std::vector<Figure> figures;
    bool isComplete = true;
    for (std::size_t i = 0; i < rows().size(); ++i) {
        if (!std::regex_search(rows()[i]->name(), filter)) continue;
        const auto measured = measureRow(i, options);
        if (measured.empty()) isComplete = false;
        for (const auto &figure : measured) {
            if (figures.empty()) printf("%s\n", tableHeader().c_str());
            printf("%s\n", tableLine(figure).c_str());
            figures.push_back(figure);
        }
        fflush(stdout);
    }
    if (!options.jsonFile.empty() && !writeJson(options.jsonFile, figures)) {
        perror(options.jsonFile.c_str());
        return 1;
    }
    return isComplete ? 0 : 1;
}

}  // namespace

Row::Row(std::string name, std::string unit, Kind kind) : name_(std::move(name)), unit_(std::move(unit)), kind_(kind) {}

Row &Row::ours(Function function) {
    contenders_.insert(contenders_.begin(), {"ours", std::move(function), noBar, noBar});
    return *this;
}

Row &Row::peer(std::string name, Function function, double bar, double stretch) {
    contenders_.push_back({std::move(name), std::move(function), bar, stretch});
    return *this;
}

Row &Row::threads(int count) {
    threads_ = count;
    return *this;
}

Row &Row::once() {
    once_ = true;
    return *this;
}

Row &addRow(const char *name, const char *unit, Kind kind) {
    rows().push_back(std::make_unique<Row>(name, unit, kind));
    return *rows().back();
}

}  // namespace zel::bench

int main(int argc, char **argv) {
    if (const auto code = zel::test::runChildIfAsked(argc, argv)) return *code;
    const auto options = zel::bench::parse(argc, argv);
    if (!options) return 2;
    setenv("ZEL_REALTIME", "off", 0);
    zel::test::isolateProcess();
    zel::bench::startIdleThread();
    const int result = zel::bench::report(*options);
    zelPlatformUnlinkSegments();
    return result;
}
