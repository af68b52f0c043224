// Policy lists as operators write them: read, written, put into the tables by the manager, and asked.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <string>

#include "programs/support/policy_text.h"
#include "tests/programs/program.h"
#include "tests/support/table.h"
#include "zel/platform.h"

using zel::programs::PolicyConfig;
using zel::programs::readPolicyConfig;
using zel::test::eventually;
using zel::test::Program;
using zel::test::TextFile;

namespace {

constexpr const char *example = R"(! lists of an edge
ip access-list standard management
 permit host 10.0.0.1
 seq 3 deny 10.0.0.0/8
 permit 192.168.0.0 0.0.255.255
ip access-list extended services
 permit udp any gt 1023 host 10.1.1.1 eq 53
 deny tcp any 10.2.0.0/16 range 100 200
 permit ip any any
ipv6 access-list six
 permit 2001:db8::/32 any
ip prefix-list in seq 5 deny 10.0.0.0/8 le 32
ip prefix-list in seq 10 permit 0.0.0.0/0 ge 8 le 24
ip prefix-list holes permit 10.0.1.0 255.0.255.0
ipv6 prefix-list in6 permit 2000::/3 le 48
ip as-path access-list origins
 deny _64[5-9][0-9][0-9]$
 permit .*
ip community-list standard local permit 65000:1 no-export
ip community-list expanded any permit ^65000:
route-map out deny 10
 match community local exact-match
 match ip address prefix-list in holes
route-map out permit 20
)";

std::string problemsOf(const std::string &text) {
    PolicyConfig config;
    std::string all;
    for (const auto &problem : readPolicyConfig(text, config))
        all += std::to_string(problem.line) + ':' + std::to_string(problem.column) + ": " + problem.text + '\n';
    return all;
}

TEST(PolicyConfig, WhatIsWrittenIsReadAgain) {
    PolicyConfig config, again;
    ASSERT_TRUE(readPolicyConfig(example, config).empty()) << problemsOf(example);
    const std::string text = textOf(config, false);
    ASSERT_TRUE(readPolicyConfig(text, again).empty()) << problemsOf(text) << text;
    EXPECT_EQ(textOf(again, true).find("hits 0") != std::string::npos, true);
    EXPECT_EQ(textOf(again, false), text);
    const auto &management = config.ip.at("management");
    EXPECT_EQ(management[0].sequence, 3u) << "entries stand where their numbers belong";
    EXPECT_EQ(management[1].sequence, 5u);
    const auto &udp = config.ip.at("services")[0];
    EXPECT_EQ(udp.sourceOperator, 2);
    EXPECT_EQ(udp.sourcePort, 1024) << "greater than is at least one more";
    EXPECT_EQ(config.maps.at("out")[0].clauses[1].names, (std::vector<std::string>{"in", "holes"}));
}

TEST(PolicyConfig, ProblemsSayWhere) {
    const struct {
        const char *text, *problems;
    } rows[] = {
        {"permit any\n", "1:1: this belongs to no list\n"},
        {"\nip access-list standard a\n  permit 10.0.0.300\n permit any\n", "3:10: this is no address\n"},
        {"ip access-list extended a\n deny udp any eq 65536 any\n", "2:18: Value is out of range.\n"},
        {"ip access-list extended a\n deny udp any any log\n", "2:19: nothing is expected here\n"},
        {"ip access-list standard a\n permit any\nip access-list extended a\n permit ip any any\n",
         "3:25: List name a already in use as a standard access-list.\n4:2: this belongs to no list\n"},
        {"ip prefix-list p permit 10.0.0.0/8 ge 24 le 16\n",
         "1:45: Invalid prefix range, make sure: len < [ge-value,le-value] && [ge-value <= le-value].\n"},
        {"ip prefix-list p seq 5 permit 10.0.0.0/8\nip prefix-list p seq 5 permit 11.0.0.0/8\n",
         "2:31: Seq number for the prefix-list entry already exists.\n"},
        {"ip as-path access-list a permit (1\n",
         "1:33: Input string is not a regular expression. (Unmatched ( or \\()\n"},
        {"ip community-list standard c permit 1:2 3\nip community-list standard c permit 1:65536\n",
         "2:37: this is no community\n"},
        {"route-map m permit\n", "1:19: a number is missing\n"},
        {"route-map m permit 1\n match ip address a\n match ip address prefix-list p\n",
         "3:31: Prefix-list and access-list cannot co-exist in one route-map sequence.\n"},
        {"ip route 10.0.0.0\n", "1:4: access-list, prefix-list, as-path or community-list is expected\n"},
    };
    for (const auto &row : rows) EXPECT_EQ(problemsOf(row.text), row.problems) << row.text;
    EXPECT_EQ(problemsOf("ip prefix-list " + std::string(141, 'n') + " permit 0.0.0.0/0\n"),
              "1:16: the name is too long (max = 140)\n");
}

void rewrite(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::trunc) << text;
}

std::string list() {
    const auto result = Program::run("zelpolicy", {"list"});
    EXPECT_EQ(result.status, 0);
    return result.output;
}

TEST(Zelaclmgrd, FollowsItsFileByDifferencesAndNeverByHalves) {
    const TextFile file(example);
    PolicyConfig config;
    readPolicyConfig(example, config);
    Program tme("zeltmed", {"--respawn", "--spawn", "ACL zelaclmgrd --config " + file.path()});
    ASSERT_TRUE(tme.says("zelaclmgrd: 10 lists created, 0 changed, 0 removed, 0 as before"));
    EXPECT_EQ(list(), textOf(config, false));
    const auto daemon = [&] {
        const std::string said = tme.output(), mark = "spawned as process ";
        return static_cast<pid_t>(std::stol(said.substr(said.rfind(mark) + mark.size())));
    };
    const pid_t pid = daemon();

    std::string changed = example;
    changed.replace(changed.find("permit ip any any"), 17, "deny ip any any");
    changed.resize(changed.find("route-map"));
    rewrite(file.path(), changed + "ip access-list standard more permit any\n");
    ASSERT_EQ(kill(pid, SIGHUP), 0);
    ASSERT_TRUE(tme.says("zelaclmgrd: 1 lists created, 1 changed, 1 removed, 8 as before"));

    const std::string before = list();
    rewrite(file.path(), changed + "ip access-list standard broken permit\nip prefix-list in seq 5 permit 1.0.0.0/8\n");
    ASSERT_EQ(kill(pid, SIGHUP), 0);
    ASSERT_TRUE(tme.says(file.path() + ":21:"));
    ASSERT_TRUE(tme.says("what could not be applied stays as it was"));
    EXPECT_EQ(list(), before);

    // The next manager finds the lists, and changes what differs.
    rewrite(file.path(), changed);
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(tme.says("zelaclmgrd: 0 lists created, 0 changed, 1 removed, 9 as before"));
    tme.signal(SIGTERM);
    EXPECT_EQ(tme.wait(), 0) << tme.output();
}

TEST(Zelaclmgrd, ChecksFiles) {
    const TextFile good(example), bad("ip prefix-list p permit 10.0.0.0/33\n");
    EXPECT_EQ(Program::run("zelaclmgrd", {"--check", good.path()}).status, 0);
    const auto result = Program::run("zelaclmgrd", {"--check", bad.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, bad.path() + ":1:25: Value is out of range.\n");
    EXPECT_EQ(Program::run("zelaclmgrd", {"--check", "/nowhere"}).status, 1);
}

TEST(Zelpolicy, AnswersAndExplains) {
    const TextFile file(example);
    const auto ask = [&file](std::vector<std::string> words) {
        words.insert(words.begin(), {"--config", file.path(), "--explain"});
        const auto result = Program::run("zelpolicy", words);
        return std::to_string(result.status) + ' ' + result.output;
    };
    EXPECT_EQ(ask({"acl", "management", "10.0.0.1"}),
              "1 deny\n  seq 3 deny 10.0.0.0 0.255.255.255\n  the first entry that matches\n");
    EXPECT_EQ(ask({"acl", "management", "1.1.1.1"}), "1 deny\n  no entry matches, which denies\n");
    EXPECT_EQ(ask({"acl", "nothing", "1.1.1.1"}), "0 permit\n  there is no such list, which permits\n");
    EXPECT_EQ(ask({"acl", "six", "2001:db8::1"}).substr(0, 8), "0 permit");
    EXPECT_EQ(ask({"udp", "services", "10.0.0.1", "2000", "10.1.1.1", "53"}).substr(0, 59),
              "0 permit\n  seq 5 permit udp any gt 1023 host 10.1.1.1 eq 53");
    EXPECT_EQ(ask({"prefix", "in", "10.1.0.0/16"}),
              "1 deny\n  seq 5 deny 10.0.0.0/8 le 32, 0 hits before\n  the lowest sequence number of the entries that "
              "match\n");
    EXPECT_EQ(ask({"aspath", "origins", "3356", "64999"}),
              "1 deny\n  seq 5 deny _64[5-9][0-9][0-9]$\n  the first entry that matches\n");
    EXPECT_EQ(ask({"community", "local", "65000:1", "no-export"}).substr(0, 8), "0 permit");
    EXPECT_EQ(ask({"routemap", "out", "11.0.0.0/8", "communities", "no-export 65000:1"}),
              "1 deny\n  seq 10 deny; match community local exact-match; match ip address prefix-list in holes\n  the "
              "first sequence of which every clause matches\n");
    EXPECT_EQ(ask({"routemap", "out", "11.0.0.0/8"}).substr(0, 17), "0 permit\n  seq 20");
    EXPECT_EQ(ask({"prefix", "in"}).substr(0, 1), "2");
    EXPECT_EQ(ask({"guess", "in"}).substr(0, 1), "2");
    const auto json = Program::run("zelpolicy", {"--config", file.path(), "--json", "-e", "prefix", "in", "9.0.0.0/8"});
    EXPECT_NE(json.output.find("\"verdict\": \"permit\""), std::string::npos) << json.output;
    EXPECT_NE(json.output.find("\"sequence\": 10"), std::string::npos) << json.output;
    EXPECT_EQ(ask({"prefix", "--json", "in", "10.0.0.0/8"}).substr(0, 3), "1 {") << "options stand anywhere";
    const auto all = Program::run("zelpolicy", {"--config", file.path(), "list", "--json"});
    EXPECT_NE(all.output.find("\"entry\": \"deny 10.0.0.0/8 le 32\",\n        \"hits\": 0"), std::string::npos)
        << all.output;
    EXPECT_EQ(Program::run("zelpolicy", {"--config", file.path(), "--json", "acl", "no\xff", "1.1.1.1"}).status, 0);
    EXPECT_EQ(Program::run("zelpolicy", {"acl", "management", "10.0.0.1"}).status, 2) << "no manager has run";
}

TEST(Zelpolicy, CountsATable) {
    // A list of the same name for the other family, with entries of the same numbers.
    const TextFile both(std::string(example) + "ipv6 prefix-list in permit 2001:db8::/32 le 48\n");
    const TextFile table(
        "10.0.0.0/8|1.1.1.1|1 64999|65000:1\n11.0.0.0/16|1.1.1.1|1 2|\n11.0.0.0/25|1.1.1.1||\n"
        "2001:db8:1::/48|2001:db8::1|1 3|\n");
    const auto result =
        Program::run("zelpolicy", {"--config", both.path(), "bulk", table.path(), "prefix", "in", "aspath", "origins"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.substr(0, result.output.rfind(',')),
              "prefix in: 2 permitted, 2 denied\n"
              "         1  prefix no entry\n"
              "         1  prefix seq 5 deny 10.0.0.0/8 le 32\n"
              "         1  prefix seq 10 permit 0.0.0.0/0 ge 8 le 24\n"
              "         1  prefix6 seq 5 permit 2001:db8::/32 le 48\n"
              "aspath origins: 3 permitted, 1 denied\n"
              "         1  aspath no entry\n"
              "         1  aspath seq 5 deny _64[5-9][0-9][0-9]$\n"
              "         2  aspath seq 10 permit .*\n"
              "4 routes, 2 permitted by all");
}

}  // namespace
