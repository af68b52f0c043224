// The arithmetic of a row: medians, ratios, bars, and the report's text. Functions of values, nothing measured here.
#pragma once

#include <string>
#include <vector>

namespace zel::bench {

// What a row compares: seconds per operation (ratio ours/peer, lower is better), operations per second (ratio with an
// "x" behind it, higher is better), or a size (lower is better).
enum class Kind { time, rate, size };

constexpr double noBar = 0;

struct Figure {
    std::string name;
    std::string unit;
    Kind kind = Kind::time;
    double ours = 0;  // in `unit`
    double peer = 0;
    std::string peerName;
    double bar = noBar;
    double stretch = noBar;
};

double median(std::vector<double> values);
double ratio(const Figure &figure);
// Whether the ratio reaches `bar`; a row without a bar meets it.
bool meets(const Figure &figure, double bar);
// "met", "short", or "stretch" when that is reached too.
const char *verdict(const Figure &figure);

std::string tableHeader();
std::string tableLine(const Figure &figure);
// One JSON object without a line break.
std::string jsonLine(const Figure &figure);

// How many of `unit` a second has: 1e9 for "ns"; 1 for everything that is not a time.
double unitsPerSecond(const std::string &unit);

}  // namespace zel::bench
