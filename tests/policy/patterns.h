// Patterns and texts for tests of the matcher: those of operators, those that nobody would write, and the judge.
#pragma once

#include <regex.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "policy/matcher.h"
#include "policy/pattern.h"
#include "tests/support/random.h"
#include "zel/platform.h"

namespace zel::test {

// The lines of a file, without those that begin with '#', as columns separated by tabs.
inline std::vector<std::vector<std::string>> rowsOf(const std::string &path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) continue;
        rows.emplace_back();
        std::istringstream columns(line);
        for (std::string column; std::getline(columns, column, '\t');) rows.back().push_back(column);
    }
    return rows;
}

// The last column of each.
inline std::vector<std::string> lastColumns(const std::string &path) {
    std::vector<std::string> all;
    for (const auto &row : rowsOf(path)) all.push_back(row.empty() ? "" : row.back());
    return all;
}

// Expressions of few characters in all combinations that mean something, and some that do not.
class PatternMaker {
public:
    explicit PatternMaker(Random &random) : random_(random) {}

    std::string pattern() { return choice(3); }
    std::string text() {
        std::string made;
        for (unsigned left = below(10); left > 0; --left) made += one("111220 ,{}()ab-^\n\xe4");
        return made;
    }

private:
    unsigned below(unsigned count) { return random_() % count; }
    char one(std::string_view characters) { return characters[below(static_cast<unsigned>(characters.size()))]; }

    std::string choice(unsigned depth) {
        std::string made = sequence(depth);
        while (below(4) == 0) made += '|' + sequence(depth);
        return made;
    }
    std::string sequence(unsigned depth) {
        std::string made;
        for (unsigned left = below(4); left > 0; --left) made += atom(depth) + repetition();
        return made;
    }
    std::string atom(unsigned depth) {
        switch (below(14)) {
            case 0:
            case 1:
            case 2:
                return depth > 0 ? '(' + choice(depth - 1) + ')' : "1";
            case 3:
                return "_";
            case 4:
                return "^";
            case 5:
                return "$";
            case 6:
                return brackets();
            case 7:
                return ".";
            case 8:
                return below(4) > 0 ? std::string("\\") + one("_.*+?()[]{}|^$0,-a")
                                    : std::string("\\") + one("12wWbB<>`'");
            default:
                return std::string(1, one("11122200 ,ab-{}])\xe4"));
        }
    }
    std::string brackets() {
        static const std::string inside[] = {"1",         "0-2",   "]",   "^",         "-",    "[",   "_",
                                             "\\",        "a-",    "--2", "ab",        ",",    "+--", "[:digit:]",
                                             "[:space:]", "[=1=]", "2-1", "\xe0-\xff", "[.-.]"};
        std::string made = below(3) == 0 ? "[^" : "[";
        for (unsigned left = 1 + below(3); left > 0; --left) made += inside[below(std::size(inside))];
        return made + ']';
    }
    std::string repetition() {
        static const std::string all[] = {"*",    "+",    "?",   "{0}", "{2}",   "{0,2}",
                                          "{1,}", "{,2}", "{,}", "**",  "{2,1}", "+?"};
        return below(3) == 0 ? all[below(std::size(all))] : "";
    }

    Random &random_;
};

// A pattern, and the C library's own idea of it.
class Judged {
public:
    explicit Judged(const std::string &pattern)
        : matcher_(policy::Matcher::compile(pattern.c_str(), why_, sizeof why_)) {
        char *expanded = policy::expandUnderscores(pattern.c_str());
        isAccepted_ = regcomp(&expression_, expanded, REG_EXTENDED | REG_NOSUB) == 0;
        zelMC_free("test", 0, expanded);
    }
    ~Judged() {
        if (isAccepted_) regfree(&expression_);
        policy::Matcher::destroy(matcher_);
    }
    Judged(const Judged &) = delete;

    policy::Matcher *operator->() const { return matcher_; }
    explicit operator bool() const { return matcher_ != nullptr; }
    bool isAccepted() const { return isAccepted_; }
    const char *why() const { return why_; }
    bool matches(const std::string &text) const { return matcher_->matches(text.data(), text.size()); }
    bool agrees(const std::string &text) const {
        return matches(text) == (regexec(&expression_, text.c_str(), 0, nullptr, 0) == 0);
    }

private:
    char why_[100] = "";
    policy::Matcher *matcher_;
    regex_t expression_;
    bool isAccepted_;
};

}  // namespace zel::test
