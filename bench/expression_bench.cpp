// Operators' expressions over the AS paths of the Internet table, each route through all of them in turn, as a list is
// searched. Every contender gets the expressions with their underscores replaced, in the form that serves it best.
#include <pcre2.h>
#include <re2/re2.h>
#include <regex.h>

#include <barrier>
#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <vector>

#include "bench/support/row.h"
#include "policy/matcher.h"
#include "policy/pattern.h"
#include "tests/support/table.h"
#include "zel/platform.h"

namespace {

using namespace zel::bench;
using zel::policy::Matcher;

std::string expanded(const std::string &pattern) {
    char *text = zel::policy::expandUnderscores(pattern.c_str());
    std::string copy = text;
    zelMC_free("bench", __LINE__, text);
    return copy;
}

// ---- Contenders: made of a pattern; isMade tells whether it compiled ------------------------------------------------

class Ours {
public:
    explicit Ours(const std::string &pattern) : matcher_(Matcher::compile(pattern.c_str(), why_, sizeof why_)) {}
    ~Ours() { Matcher::destroy(matcher_); }
    Ours(const Ours &) = delete;
    bool isMade() const { return matcher_ != nullptr; }
    bool matches(const std::string &text) const { return matcher_->matches(text.data(), text.size()); }

private:
    char why_[100];
    Matcher *matcher_;
};

class Regexec {
public:
    explicit Regexec(const std::string &pattern)
        : isMade_(regcomp(&expression_, expanded(pattern).c_str(), REG_EXTENDED | REG_NOSUB) == 0) {}
    ~Regexec() {
        if (isMade_) regfree(&expression_);
    }
    Regexec(const Regexec &) = delete;
    bool isMade() const { return isMade_; }
    bool matches(const std::string &text) const { return regexec(&expression_, text.c_str(), 0, nullptr, 0) == 0; }

private:
    regex_t expression_;
    bool isMade_;
};

class Re2 {
public:
    explicit Re2(const std::string &pattern) : expression_(expanded(pattern), options()) {}
    bool isMade() const { return expression_.ok(); }
    bool matches(const std::string &text) const {
        return expression_.Match(text, 0, text.size(), RE2::UNANCHORED, nullptr, 0);
    }

private:
    static RE2::Options options() {
        RE2::Options options(RE2::Latin1);
        options.set_never_capture(true);
        options.set_log_errors(false);
        return options;
    }
    RE2 expression_;
};

class Pcre2 {
public:
    explicit Pcre2(const std::string &pattern) {
        int error = 0;
        PCRE2_SIZE place = 0;
        const std::string text = expanded(pattern);
        expression_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(),
                                    PCRE2_NO_AUTO_CAPTURE | PCRE2_DOLLAR_ENDONLY, &error, &place, nullptr);
        if (expression_ == nullptr || pcre2_jit_compile(expression_, PCRE2_JIT_COMPLETE) != 0) return;
        result_ = pcre2_match_data_create(1, nullptr);
    }
    ~Pcre2() {
        pcre2_match_data_free(result_);
        pcre2_code_free(expression_);
    }
    Pcre2(const Pcre2 &) = delete;
    bool isMade() const { return result_ != nullptr; }
    bool matches(const std::string &text) const {
        const auto *bytes = reinterpret_cast<PCRE2_SPTR>(text.data());
        return pcre2_jit_match(expression_, bytes, text.size(), 0, 0, result_, nullptr) >= 0;
    }

private:
    pcre2_code *expression_ = nullptr;
    pcre2_match_data *result_ = nullptr;
};

// ---- Data -----------------------------------------------------------------------------------------------------------

// Those that every contender compiles: without back references, which RE2 has not.
const std::vector<std::string> &patterns() {
    static const auto all = [] {
        std::vector<std::string> kept;
        std::ifstream file(ZEL_DATA_DIR "/aspath_regex.txt");
        for (std::string line; std::getline(file, line);) {
            const std::string pattern = line.substr(line.rfind('\t') + 1);
            if (line.starts_with('#') || !Ours(pattern).isMade() || !Re2(pattern).isMade()) continue;
            kept.push_back(pattern);
        }
        return kept;
    }();
    return all;
}

constexpr size_t pathCount = 4096;

const std::vector<std::string> &paths() {
    static const auto all = [] {
        std::set<std::string> distinct;
        zel::test::eachRow("rib4_full_2015-10.txt.xz", [&](std::string_view row) {
            zel::test::column(row);
            zel::test::column(row);
            distinct.emplace(zel::test::column(row));
        });
        const std::vector<std::string> sorted(distinct.begin(), distinct.end());
        std::vector<std::string> chosen;
        for (size_t i = 0; i < pathCount && !sorted.empty(); ++i) chosen.push_back(sorted[i * 7919 % sorted.size()]);
        return chosen;
    }();
    return all;
}

template <class Contender>
class Expressions {
public:
    Expressions() {
        for (const auto &pattern : patterns()) all_.push_back(std::make_unique<Contender>(pattern));
    }
    // The next expression with this path, or the first with the next one.
    bool matchesNext() {
        const bool result = all_[expression_]->matches(paths()[path_]);
        if (++expression_ == all_.size()) {
            expression_ = 0;
            path_ = (path_ + 1) % pathCount;
        }
        return result;
    }
    // Of all expressions with all paths.
    size_t verdicts() const {
        size_t matching = 0;
        for (const auto &path : paths())
            for (const auto &expression : all_) matching += expression->matches(path);
        return matching;
    }

private:
    std::vector<std::unique_ptr<Contender>> all_;
    size_t expression_ = 0, path_ = 0;
};

template <class Contender>
void run(benchmark::State &state) {
    static const size_t right = Expressions<Regexec>().verdicts();
    static Expressions<Contender> expressions;
    static const bool isRight = expressions.verdicts() == right;
    if (!isRight || right == 0) return state.SkipWithError("verdicts differ");
    for (auto _ : state) benchmark::DoNotOptimize(expressions.matchesNext());
}

ZEL_ROW("AS-path expression, no cache, real paths and operators' expressions", "ns", time)
    .ours(run<Ours>)
    .peer("regexec", run<Regexec>, 0.3, 0.2)
    .peer("RE2", run<Re2>, 0.7)
    .peer("PCRE2 JIT", run<Pcre2>, noBar, 1.5);

// ---- Two threads ----------------------------------------------------------------------------------------------------

template <class Contender>
double secondsOf(const Expressions<Contender> &expressions, int rounds) {
    const auto begin = std::chrono::steady_clock::now();
    for (int round = 0; round < rounds; ++round) benchmark::DoNotOptimize(expressions.verdicts());
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// How much more two threads match than one. Ours share their expressions; the C library's are each thread's own, since
// threads that share one take turns.
template <class Contender, bool areShared, int rounds>
void scale(benchmark::State &state) {
    static const Expressions<Contender> expressions[2];
    static std::barrier<> both(2);
    const auto thread = static_cast<size_t>(state.thread_index());
    for (auto _ : state) {
        const auto &mine = expressions[areShared ? 0 : thread];
        both.arrive_and_wait();
        const double alone = thread == 0 ? secondsOf(mine, rounds) : 0;
        both.arrive_and_wait();
        const double together = secondsOf(mine, rounds);
        if (thread == 0) state.counters["items_per_second"] = 2 * alone / together;
    }
}

ZEL_ROW("AS-path expression, the same, 2 threads", "x of one", rate)
    .ours(scale<Ours, true, 32>)
    .peer("regexec, private", scale<Regexec, false, 4>, 0.95)
    .threads(2)
    .once();

}  // namespace
