// Verdicts of compiled patterns, against regexec of the C library.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "tests/policy/patterns.h"
#include "tests/support/table.h"

namespace {

using zel::policy::Matcher;
using zel::test::column;
using zel::test::eachRow;
using zel::test::Judged;
using zel::test::lastColumns;
using zel::test::PatternMaker;
using zel::test::Random;
using zel::test::rowsOf;

TEST(Matcher, agreesWithTheCLibraryOnGeneratedPatterns) {
    Random random = zel::test::seeded();
    PatternMaker maker(random);
    const unsigned patterns = zel::test::isFullRun() ? 150'000 : 10'000, texts = 10;
    unsigned automata = 0, expressions = 0;
    for (unsigned i = 0; i < patterns; ++i) {
        const std::string pattern = maker.pattern();
        char why[100];
        if (!zel::policy::checkPattern(pattern.c_str(), why, sizeof why)) continue;
        const Judged judged(pattern);
        ASSERT_EQ(bool{judged}, judged.isAccepted()) << pattern << ": " << judged.why();
        if (!judged) continue;
        ++expressions;
        automata += judged->hasAutomaton();
        for (unsigned text = 0; text < texts; ++text) {
            const std::string against = maker.text();
            EXPECT_TRUE(judged.agrees(against)) << "pattern " << pattern << " text '" << against << "'";
        }
    }
    printf("%u expressions, %u automata\n", expressions, automata);
    EXPECT_GT(expressions, patterns / 3);
    EXPECT_GT(automata, expressions / 2);
}

TEST(Matcher, agreesWithTheCLibraryOnOperatorsExpressions) {
    std::set<std::string> texts;
    for (const std::string &odd : lastColumns(ZEL_DATA_DIR "/aspath_odd.txt")) texts.insert(odd);
    const auto addColumns = [&](std::string_view row, int skipped) {
        while (skipped-- > 0) column(row);
        texts.emplace(column(row));
        texts.emplace(column(row));
    };
    ASSERT_GT(eachRow("updates_2016-08.txt.xz", [&](std::string_view row) { addColumns(row, 4); }), 0);
    if (zel::test::isFullRun()) eachRow("rib4_full_2015-10.txt.xz", [&](std::string_view row) { addColumns(row, 2); });

    auto patterns = lastColumns(ZEL_DATA_DIR "/aspath_regex.txt");
    for (const std::string &pattern : lastColumns(ZEL_DATA_DIR "/community_lists.txt")) patterns.push_back(pattern);
    unsigned automata = 0, matches = 0;
    for (const std::string &pattern : patterns) {
        const Judged judged(pattern);
        ASSERT_EQ(bool{judged}, judged.isAccepted()) << pattern << ": " << judged.why();
        if (!judged) continue;
        automata += judged->hasAutomaton();
        for (const std::string &text : texts) {
            ASSERT_TRUE(judged.agrees(text)) << pattern << " '" << text << "'";
            matches += judged.matches(text);
        }
    }
    printf("%zu expressions, %u automata, %zu texts, %u matches\n", patterns.size(), automata, texts.size(), matches);
    EXPECT_GE(automata + 6, patterns.size());  // three do not compile, two refer back
}

TEST(Matcher, readsUnderscoresAndOddPatternsAsTheyStand) {
    for (const auto &row : rowsOf(ZEL_TEST_DIR "/policy/verdicts.txt")) {
        const Judged judged(row[0]);
        ASSERT_TRUE(judged) << row[0];
        EXPECT_EQ(judged.matches(row[1]), row[2] == "matches") << row[0] << " '" << row[1] << "'";
        EXPECT_TRUE(judged.agrees(row[1])) << row[0] << " '" << row[1] << "'";
    }
    EXPECT_FALSE(Judged("_100_").matches("100\t7"));
    const std::string zero("a\0b", 3);
    EXPECT_TRUE(Judged("^a[^x]b$").matches(zero));
    EXPECT_FALSE(Judged("^a.b$").matches(zero));
}

std::string times(unsigned count, const std::string &text) {
    std::string all;
    while (count-- > 0) all += text;
    return all;
}

TEST(Matcher, refusesWhatWouldTakeAllMemory) {
    const struct {
        std::string pattern;
        const char *why;  // null: compiles
    } rows[] = {
        {times(1024, "1"), nullptr},
        {times(1025, "1"), "longer than 1024 characters"},
        {times(100, "(") + "1" + times(100, ")"), nullptr},
        {times(101, "(") + "1" + times(101, ")"), "parentheses nest deeper than 100"},
        {times(100, "(") + "_" + times(100, ")"), "parentheses nest deeper than 100"},
        {"(x{100}){100}", nullptr},
        {"((x{100}){100}){2}", "intervals nest to more than 10000 repetitions"},
        {"((((x{1,100}){1,100}){1,50}){1,10})", "intervals nest to more than 10000 repetitions"},
        {"((((x{1,100}){1,100}){1,50}", "intervals nest to more than 10000 repetitions"},
        {"x{1\\0\\0\\0\\0}{2}", "intervals nest to more than 10000 repetitions"},
        {"1" + times(40, "+"), "intervals nest to more than 10000 repetitions"},
        {"(" + times(900, "1") + "){100}", "too large with its intervals written out"},
        {times(20, "x{5000}"), "too large with its intervals written out"},
        {"x{0,10000}", "too much of it may be passed over"},
        {"x{1,2002}", "too much of it may be passed over"},
        {"(x?){10000}", "too much of it may be passed over"},
        {times(40, "_"), nullptr},
        {times(100, "_"), "too much of it may be passed over"},
        {times(1000, "$"), "too much of it may be passed over"},
        {times(20, "_*"), "too much of it may be passed over"},
        {"(" + times(100, "_1_|") + "2)*", nullptr},
        {"^([0-9]+_){0,500}65000$", nullptr},
        {times(40, "\\b"), nullptr},
        {times(41, "\\B"), "too much of it may be passed over"},
        {"(1\\b|\\B2)*", nullptr},
        {"(_(\\B|)+)*", "repeats a boundary of words where it may read nothing"},
        {"(^|1|\\b|\\B)*", "repeats a boundary of words where it may read nothing"},
        {"(.*)(.*)\\1\\2", "refers back to more than one group"},
        {"(()\\2)*", "repeats a reference to what may be empty or is repeated"},
        {"(1|(.)*\\2){1,}", "repeats a reference to what may be empty or is repeated"},
        {"*1", "Invalid preceding regular expression"},
        {"20 {.*}", "Invalid content of \\{\\}"},
        {"(1", "Unmatched ( or \\("},
        {"1\\", "Trailing backslash"},
        {"[1", "Unmatched [, [^, [:, [., or [="},
    };
    for (const auto &row : rows) {
        char why[100] = "";
        Matcher *matcher = Matcher::compile(row.pattern.c_str(), why, sizeof why);
        EXPECT_EQ(matcher == nullptr, row.why != nullptr) << row.pattern << why;
        EXPECT_STREQ(why, row.why ? row.why : "");
        Matcher::destroy(matcher);
    }
}

// More threads than there are copies of a C library's expression.
TEST(Matcher, servesManyThreadsAtOnce) {
    const Judged reference("(^| )([0-9]+)( \\2)+$"), automaton("_7018_");
    ASSERT_FALSE(reference->hasAutomaton());
    ASSERT_TRUE(automaton->hasAutomaton());
    const auto match = [&] {
        for (int i = 0; i < 200; ++i)
            if (!reference.matches("1 7018 7018") || reference.matches("7018 1") || !automaton.matches("1 7018") ||
                automaton.matches("17018"))
                return abort();
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 24; ++i) threads.emplace_back(match);
    for (auto &thread : threads) thread.join();
}

}  // namespace
