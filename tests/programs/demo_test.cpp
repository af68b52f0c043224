// The demonstration with real processes, and the source of routes in it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "programs/support/attributes.h"
#include "tests/programs/program.h"
#include "tests/support/table.h"

using zel::programs::Attributes;
using zel::programs::decodeAttributes;
using zel::programs::encodeAttributes;
using zel::test::Program;

namespace {

std::string fullTable() {
    return ZEL_DATA_DIR "/rib4_full_2015-10.txt.xz";
}

bool has(const std::string &output, const std::string &text) {
    return output.find(text) != std::string::npos;
}

// The line of the summary that begins with `name`, its value without blanks.
std::string summary(const std::string &output, const std::string &name) {
    const std::size_t at = output.find("  " + name + " ", output.find("Summary:"));
    if (at == std::string::npos) return "";
    std::string value = output.substr(at + name.size() + 2, output.find('\n', at) - at - name.size() - 2);
    value.erase(0, value.find_first_not_of(' '));
    return value;
}

TEST(Demo, carriesACompleteTableAndAnswersFromIt) {
    const auto [status, output] = Program::run("zeldemo", {"--table", fullTable(), "8.8.8.8", "203.0.113.1"});
    EXPECT_EQ(status, 0) << output;
    EXPECT_TRUE(has(output, "the same as the file")) << output;
    EXPECT_TRUE(has(output, "8.8.8.0/24")) << output;
    EXPECT_TRUE(has(output, "15169")) << output;
    EXPECT_TRUE(has(output, "0.0.0.0/0")) << output;
    EXPECT_EQ(summary(output, "rows read"), "577,737");
    EXPECT_EQ(summary(output, "distinct prefixes"), "577,706");
    EXPECT_EQ(summary(output, "drops"), "0");
}

TEST(Demo, recoversFromAKilledManagerWithSeveralSources) {
    const auto [status, output] = Program::run("zeldemo", {"--table", fullTable(), "--kill", "--peers", "2"});
    EXPECT_EQ(status, 0) << output;
    EXPECT_TRUE(has(output, "Killing the route table manager")) << output;
    EXPECT_TRUE(has(output, "the same as the file")) << output;
    EXPECT_EQ(summary(output, "recoveries"), "2") << output;
}

// Rows that repeat a prefix, both families, and attributes that do not fit: the last row counts, communities are cut.
TEST(Demo, takesATableWithSeveralRowsPerPrefix) {
    char path[] = "/tmp/zel_table_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string communities;
    for (int i = 0; i < 200; ++i) communities += std::to_string(i) + ":1 ";
    std::ofstream(path) << "10.0.0.0/8|1.1.1.1|1 2|\n2001:db8::/32|2001:db8::1|3 {4,5}|1:2\n10.0.0.0/8|2.2.2.2|6||\n"
                        << "0.0.0.0/0|3.3.3.3||" << communities.substr(0, communities.size() - 1) << "\n";
    const auto [status, output] = Program::run("zeldemo", {"--table", path, "10.1.1.1", "2001:db8::9"});
    unlink(path);
    EXPECT_EQ(status, 0) << output;
    EXPECT_TRUE(has(output, "2.2.2.2")) << output;
    EXPECT_TRUE(has(output, "3 {4,5}")) << output;
    EXPECT_EQ(summary(output, "distinct prefixes"), "3");
    EXPECT_EQ(summary(output, "communities left out"), "73");
}

TEST(Demo, refusesWhatItCannotDo) {
    EXPECT_EQ(Program::run("zeldemo", {"--peers", "5"}).status, 2);
    EXPECT_EQ(Program::run("zeldemo", {"--table", "/nonexistent"}).status, 1);
    EXPECT_EQ(Program::run("zelrtmd", {"--help"}).status, 0);
    EXPECT_EQ(Program::run("zelroutes", {"1", "2"}).status, 2);
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
    unsigned long cut = 0;
    const long rows = zel::test::eachRow("updates_2016-08.txt.xz", [&](std::string_view row) {
        if (!row.starts_with("A|")) return;
        for (int i = 0; i < 4; ++i) zel::test::column(row);
        const std::string path(zel::test::column(row)), communities(zel::test::column(row));
        Attributes attributes;
        ASSERT_TRUE(encodeAttributes(path, communities, attributes)) << path << "|" << communities;
        EXPECT_EQ(attributes.numbersCut, 0u);
        cut += attributes.communitiesCut;
        const auto texts = decodeAttributes(attributes.bytes, attributes.length);
        EXPECT_EQ(texts.asPath, path);
        if (attributes.communitiesCut == 0) {
            EXPECT_EQ(texts.communities, communities);
        } else {
            EXPECT_TRUE(communities.starts_with(texts.communities));
        }
    });
    EXPECT_EQ(rows, 41212);
    printf("%lu communities cut\n", cut);
}

}  // namespace
