#include "bench/support/figures.h"

#include <algorithm>
#include <cstdio>

namespace zel::bench {
namespace {

std::string quoted(const std::string &text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result + '"';
}

std::string number(const char *format, double value) {
    char text[64];
    snprintf(text, sizeof text, format, value);
    return text;
}

std::string ratioText(Kind kind, double value) {
    return value == noBar ? "-" : number(kind == Kind::rate ? "%.2fx" : "%.2f", value);
}

}  // namespace

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double ratio(const Figure &figure) {
    return figure.peer > 0 ? figure.ours / figure.peer : 0;
}

bool meets(const Figure &figure, double bar) {
    if (bar == noBar) return true;
    return figure.kind == Kind::rate ? ratio(figure) >= bar : ratio(figure) <= bar;
}

const char *verdict(const Figure &figure) {
    if (figure.bar == noBar) return "-";
    if (!meets(figure, figure.bar)) return "short";
    return figure.stretch != noBar && meets(figure, figure.stretch) ? "stretch" : "met";
}

std::string tableHeader() {
    char line[256];
    snprintf(line, sizeof line, "%-48s %12s %12s  %-12s %8s %7s  %s", "row", "ours", "peer", "unit", "ratio", "bar",
             "peer is");
    return line;
}

std::string tableLine(const Figure &figure) {
    char line[512];
    snprintf(line, sizeof line, "%-48s %12.5g %12.5g  %-12s %8s %7s  %s: %s", figure.name.c_str(), figure.ours,
             figure.peer, figure.unit.c_str(), ratioText(figure.kind, ratio(figure)).c_str(),
             ratioText(figure.kind, figure.bar).c_str(), figure.peerName.c_str(), verdict(figure));
    return line;
}

std::string jsonLine(const Figure &figure) {
    std::string line = "{\"name\": " + quoted(figure.name) + ", \"unit\": " + quoted(figure.unit) +
                       ", \"ours\": " + number("%.6g", figure.ours) + ", \"peer\": " + number("%.6g", figure.peer) +
                       ", \"peer_name\": " + quoted(figure.peerName) + ", \"ratio\": " + number("%.4f", ratio(figure)) +
                       ", \"better\": " + (figure.kind == Kind::rate ? "\"higher\"" : "\"lower\"");
    if (figure.bar != noBar) line += ", \"bar\": " + number("%g", figure.bar);
    if (figure.stretch != noBar) line += ", \"stretch\": " + number("%g", figure.stretch);
    return line + "}";
}

double unitsPerSecond(const std::string &unit) {
    if (unit == "ns") return 1e9;
    if (unit == "us") return 1e6;
    if (unit == "ms") return 1e3;
    return 1;
}

}  // namespace zel::bench
