#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "programs/support/program.h"

namespace zeldemo {
namespace {

constexpr unsigned width = 40;
constexpr double secondsBetweenLines = 0.5;

}  // namespace

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
    return text;
}

Progress::Progress(std::uint64_t total)
    : total_(std::max<std::uint64_t>(total, 1)), isTerminal_(isatty(STDOUT_FILENO)) {}

void Progress::draw(std::uint64_t done, std::uint64_t counted, double elapsed) {
    const std::uint64_t shown = std::min(done, total_);
    const auto rate = elapsed > 0 ? static_cast<std::uint64_t>(static_cast<double>(counted) / elapsed) : 0;
    const auto percent = static_cast<unsigned>(shown * 100 / total_);
    if (!isTerminal_) {
        printf("%3u %%  %s of %s routes  %s routes/s\n", percent, grouped(shown).c_str(), grouped(total_).c_str(),
               grouped(rate).c_str());
        return;
    }
    const auto filled = static_cast<unsigned>(shown * width / total_);
    printf("\r[%s%s] %3u %%  %s of %s routes  %s routes/s\033[K", std::string(filled, '#').c_str(),
           std::string(width - filled, '.').c_str(), percent, grouped(shown).c_str(), grouped(total_).c_str(),
           grouped(rate).c_str());
    fflush(stdout);
}

void Progress::show(std::uint64_t done) {
    if (done == 0 || (done == last_ && begin_ > 0)) return;
    last_ = done;
    const double now = zel::programs::monotonicSeconds();
    if (begin_ == 0 || done < first_) {
        begin_ = now;
        first_ = done;
        if (done < total_) return;
    }
    if (!isTerminal_ && now - lastShown_ < secondsBetweenLines) return;
    lastShown_ = now;
    draw(done, done - std::min(first_, done), now - begin_);
}

void Progress::finish(std::uint64_t done, double seconds) {
    draw(done, total_, seconds);
    if (isTerminal_) printf("\n");
}

void Progress::note(const std::string &text) {
    printf("%s%s\n", isTerminal_ && begin_ > 0 ? "\n" : "", text.c_str());
    begin_ = 0;
}

}  // namespace zeldemo
