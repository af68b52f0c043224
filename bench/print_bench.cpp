// Printing: a trace line on its way into the history, against a logger's sink that keeps the last lines in memory.
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <memory>

#include "bench/support/row.h"
#include "zel/kernel.h"

namespace {

void traceLine(benchmark::State &state) {
    if (zelTraceInit() != ZEL_OK) return state.SkipWithError("no history");
    int number = 0;
    for (auto _ : state) zelTracePrintf(51, "route %d of %d sent to %s", number++, 1000, "slot 3");
}

void ringSinkLine(benchmark::State &state) {
    const auto sink = std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(3000);
    spdlog::logger logger("RTM", sink);
    int number = 0;
    for (auto _ : state) logger.info("route {} of {} sent to {}", number++, 1000, "slot 3");
}

// The same, with the line put together as ours is: time stamp, module and thread in front of the text.
void formattedRingLine(benchmark::State &state) {
    class Ring : public spdlog::sinks::base_sink<std::mutex> {
    public:
        void sink_it_(const spdlog::details::log_msg &message) override {
            line_.clear();
            formatter_->format(message, line_);
            const std::size_t length = std::min<std::size_t>(line_.size(), sizeof entries_[0]);
            memcpy(entries_[next_], line_.data(), length);
            next_ = (next_ + 1) % 3000;
        }
        void flush_() override {}

    private:
        char entries_[3000][200] = {};
        std::size_t next_ = 0;
        spdlog::memory_buf_t line_;
    };
    const auto sink = std::make_shared<Ring>();
    sink->set_pattern("[%m/%d %H:%M:%S] %n-(%t): %v");
    spdlog::logger logger("RTM", sink);
    int number = 0;
    for (auto _ : state) logger.info("route {} of {} sent to {}", number++, 1000, "slot 3");
}

ZEL_ROW("trace line into the history", "ns", time)
    .ours(traceLine)
    .peer("spdlog ring sink", ringSinkLine, 1.0)
    .peer("spdlog formatted into a ring", formattedRingLine);

}  // namespace
