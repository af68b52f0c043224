// The command line of a program, as a list of the options it knows.
//
//     return readOptions(argc, argv, help, {{"table", 't', takeText(options.table)},
//                                           {"window", 0, takeNumber(1u, 64u, options.window)},
//                                           {"quit", 0, takeFlag(options.quits)}});
#pragma once

#include <charconv>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace zel::programs {

// What an option does: false refuses its argument.
struct OptionAction {
    bool hasArgument;
    std::function<bool(const char *argument)> take;
};

struct ProgramOption {
    const char *name;  // behind two dashes
    char letter;       // behind one dash, or 0
    OptionAction action;
};

// Where words may stand that are no options: behind them all, or anywhere.
enum class OtherWords { behind, anywhere };

// Reads the options; the other words then begin at optind. False when one is unknown or its argument is refused. -h and
// --help print `help` and end the program.
bool readOptions(int argc, char **argv, const char *help, const std::vector<ProgramOption> &options,
                 OtherWords otherWords = OtherWords::behind);

// Reads a decimal number of that range.
template <class Number>
bool readNumber(const char *text, Number low, Number high, Number &value) {
    const char *end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    return error == std::errc() && stop == end && value >= low && value <= high;
}

inline OptionAction takeFlag(bool &flag) {
    return {false, [&flag](const char *) { return flag = true; }};
}

inline OptionAction takeText(std::string &text) {
    return {true, [&text](const char *argument) { return text = argument, true; }};
}

template <class Number>
OptionAction takeNumber(Number low, Number high, Number &value) {
    return {true, [=, &value](const char *argument) { return readNumber(argument, low, high, value); }};
}

}  // namespace zel::programs
