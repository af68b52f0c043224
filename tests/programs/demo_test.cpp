// The demonstration with real processes, and the source of routes in it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "programs/support/attributes.h"
#include "programs/support/table_file.h"
#include "tests/programs/program.h"

using zel::programs::Attributes;
using zel::programs::decodeAttributes;
using zel::programs::encodeAttributes;
using zel::test::Program;
using zel::test::TextFile;

namespace {

std::string fullTable() {
    return ZEL_DATA_DIR "/rib4_full_2015-10.txt.xz";
}

// The line of the summary that begins with `name`, its value without blanks.
std::string summary(const std::string &output, const std::string &name) {
    const std::size_t at = output.find("  " + name + " ", output.find("Summary:"));
    if (at == std::string::npos) return "";
    std::string value = output.substr(at + name.size() + 2, output.find('\n', at) - at - name.size() - 2);
    value.erase(0, value.find_first_not_of(' '));
    return value;
}

// The output of a run with these arguments, which contains all of `texts`.
std::string demonstrate(std::vector<std::string> arguments, const std::vector<std::string> &texts) {
    arguments.insert(arguments.begin(), "--table");
    const auto [status, output] = Program::run("zeldemo", arguments);
    EXPECT_EQ(status, 0) << output;
    for (const std::string &text : texts) EXPECT_NE(output.find(text), std::string::npos) << text << "\n" << output;
    return output;
}

TEST(Demo, carriesACompleteTableAndAnswersFromIt) {
    const std::string output = demonstrate({fullTable(), "8.8.8.8", "203.0.113.1"},
                                           {"the same as the file", "8.8.8.0/24", "15169", "0.0.0.0/0"});
    EXPECT_EQ(summary(output, "rows read"), "577,737");
    EXPECT_EQ(summary(output, "distinct prefixes"), "577,706");
    EXPECT_EQ(summary(output, "drops"), "0");
}

TEST(Demo, pushesWhatThePolicyPermits) {
    const std::string output =
        demonstrate({fullTable(), "--policy", ZEL_DATA_DIR "/policy.conf"},
                    {"the same as the file", "1  prefix seq 5 permit 0.0.0.0/0", "aspath seq 15 deny _(6449"});
    EXPECT_EQ(summary(output, "rows read"), "577,737");
    EXPECT_NE(summary(output, "rows permitted"), summary(output, "rows read"));
}

TEST(Demo, recoversFromAKilledManagerWithSeveralSources) {
    const std::string output = demonstrate({fullTable(), "--kill", "--peers", "2"},
                                           {"Killing the route table manager", "the same as the file"});
    EXPECT_EQ(summary(output, "recoveries"), "2") << output;
}

// Rows that repeat a prefix, both families, and attributes that do not fit: the last row counts, the rest is cut.
TEST(Demo, takesATableWithSeveralRowsPerPrefix) {
    std::string communities, path;
    for (int i = 0; i < 200; ++i) communities += (i ? " " : "") + std::to_string(i) + ":1", path += "7 ";
    const TextFile table("10.0.0.0/8|1.1.1.1|1 2|\n2001:db8::/32|2001:db8::1|3 {4,5}|1:2\n10.0.0.0/8|2.2.2.2|6||\n" +
                         ("0.0.0.0/0|3.3.3.3||" + communities) + "\n11.0.0.0/8|3.3.3.3|" + path + "|\n");
    const std::string output = demonstrate({table.path(), "10.1.1.1", "2001:db8::9"}, {"2.2.2.2", "3 {4,5}"});
    EXPECT_EQ(summary(output, "distinct prefixes"), "4");
    EXPECT_EQ(summary(output, "communities left out"), "73");
    EXPECT_EQ(summary(output, "AS paths cut"), "1");
}

int sharedSegments() {
    const std::filesystem::directory_iterator files("/dev/shm");
    return static_cast<int>(std::count_if(begin(files), end(files), [](const auto &file) {
        return file.path().filename().string().starts_with(getenv("ZEL_SHM_PREFIX"));
    }));
}

TEST(Demo, ofTwoRouteProcessorsOutlivesThePrimary) {
    const int before = sharedSegments();
    const std::string output = demonstrate({fullTable(), "--two"},
                                           {"the same as the file", "Killing the primary", "its 5 processes are gone"});
    EXPECT_EQ(summary(output, "routes"), "20,000");
    EXPECT_EQ(summary(output, "multicast routes"), "5");
    EXPECT_EQ(summary(output, "slots kept"), "4");
    EXPECT_EQ(summary(output, "slots held"), "8");
    EXPECT_EQ(sharedSegments(), before);
}

TEST(Demo, refusesWhatItCannotDo) {
    EXPECT_EQ(Program::run("zeldemo", {"--two", "--kill"}).status, 2);
    EXPECT_EQ(Program::run("zeldemo", {"--two", "--table", "/nonexistent"}).status, 1);
    EXPECT_EQ(Program::run("zeldemo", {"--peers", "5"}).status, 2);
    EXPECT_EQ(Program::run("zeldemo", {"--table", "/nonexistent"}).status, 1);
    EXPECT_EQ(Program::run("zelrtmd", {"--help"}).status, 0);
    EXPECT_EQ(Program::run("zelroutes", {"1", "2"}).status, 2);
    const std::vector<std::string> identity{"1", "2", "3", "4", "5", "6", "7", "8"};
    for (const char *clients : {"0", "256", "3x"}) {
        std::vector<std::string> words{"--max-clients", clients};
        words.insert(words.end(), identity.begin(), identity.end());
        EXPECT_EQ(Program::run("zelrtmd", words).status, 2);
    }
}

TEST(Attributes, comeBackAsTheTextsTheyWere) {
    for (const char *path : {"", "1", "1273 55410 38266 {38266}", "{1,2} 3", "(65001 65002) 7 [65003,65004]",
                             "4294967295 0 23456", "1 {2} {3,4} 5"}) {
        Attributes attributes;
        ASSERT_TRUE(encodeAttributes(path, "0:0 65535:65281", attributes)) << path;
        const auto texts = decodeAttributes(attributes.bytes, attributes.length);
        EXPECT_EQ(texts.asPath, path);
        EXPECT_EQ(texts.communities, "0:0 65535:65281");
    }
    for (const char *path : {"1 x", "{1", "1}", "4294967296"}) {
        Attributes attributes;
        EXPECT_FALSE(encodeAttributes(path, "", attributes)) << path;
    }
    Attributes attributes;
    EXPECT_FALSE(encodeAttributes("1", "65536:1", attributes));
    EXPECT_FALSE(encodeAttributes("1", "7", attributes));
}

TEST(Attributes, ofRealUpdatesAllFitOrLoseCommunitiesOnly) {
    long rows = 0;
    const auto column = [](std::string_view &rest) {
        const std::string_view text = rest.substr(0, rest.find('|'));
        rest.remove_prefix(std::min(text.size() + 1, rest.size()));
        return text;
    };
    EXPECT_TRUE(zel::programs::readLines(ZEL_DATA_DIR "/updates_2016-08.txt.xz", [&](std::string_view row) {
        ++rows;
        if (!row.starts_with("A|")) return;
        for (int i = 0; i < 4; ++i) column(row);
        const std::string_view path = column(row), communities = column(row);
        Attributes attributes;
        ASSERT_TRUE(encodeAttributes(path, communities, attributes)) << path << "|" << communities;
        EXPECT_EQ(attributes.numbersCut, 0u);
        const auto texts = decodeAttributes(attributes.bytes, attributes.length);
        EXPECT_EQ(texts.asPath, path);
        EXPECT_TRUE(attributes.communitiesCut ? communities.starts_with(texts.communities)
                                              : communities == texts.communities);
    }));
    EXPECT_EQ(rows, 41212);
}

}  // namespace
