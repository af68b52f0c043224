// Shows how far the routes have come: a bar that is drawn over itself on a terminal, a line now and then elsewhere.
#pragma once

#include <cstdint>
#include <string>

namespace zeldemo {

// 577,737
std::string grouped(std::uint64_t number);

class Progress {
public:
    explicit Progress(std::uint64_t total);
    void show(std::uint64_t done);
    // The last drawing; `seconds` is what the whole took.
    void finish(std::uint64_t done, double seconds);
    // Something to say between two drawings.
    void note(const std::string &text);

private:
    void draw(std::uint64_t done, std::uint64_t counted, double elapsed);

    std::uint64_t total_;
    bool isTerminal_;
    double begin_ = 0;  // when the first route was seen
    double lastShown_ = 0;
    std::uint64_t first_ = 0;  // how many had come by then
    std::uint64_t last_ = 0;
};

}  // namespace zeldemo
