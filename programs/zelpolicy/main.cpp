// zelpolicy: asks policy lists from the command line, those of a running CPU or of a configuration file.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "bulk.h"
#include "programs/support/options.h"
#include "programs/support/policy_apply.h"
#include "programs/support/policy_text.h"
#include "questions.h"
#include "zel/platform.h"

namespace {

using namespace zel::programs;
using nlohmann::ordered_json;
using zelpolicy::Words;

constexpr const char *help =
    R"(usage: zelpolicy [OPTION]... QUESTION

Asks policy lists: those that the manager of this CPU keeps in shared memory, or with --config those of a file. The
verdict is that of the checks of the library, made in place, and counts among the hits of the entry. Ends with status 0
for permit, 1 for deny, 2 for trouble.

  acl NAME SOURCE [DESTINATION]            an IPv4 or IPv6 access list
  udp NAME SOURCE PORT DESTINATION PORT    an access list, about a UDP datagram
  prefix NAME ADDRESS/LENGTH               a prefix list
  aspath NAME [AS-NUMBER...]               an AS-path list
  community NAME [HIGH:LOW...]             a community list
  routemap NAME ADDRESS/LENGTH [next-hop ADDRESS] [path TEXT] [communities TEXT]
  list                                     all lists, in the syntax of a file
  bulk TABLE KIND NAME [KIND NAME]...      every route of a table through lists: prefix, acl, aspath, community, routemap

  -c, --config FILE    ask the lists of this file
  -e, --explain        say which entry decides, and why
      --hits           list: with what the entries of prefix lists decided so far
      --json           answer in JSON; list: with hits
  -h, --help           this text
)";

struct Options {
    std::string config;
    bool explains = false, hits = false, json = false;
};

constexpr int permits = 0, denies = 1, trouble = 2;

int refuse(const std::string &why) {
    fprintf(stderr, "zelpolicy: %s\n", why.c_str());
    return trouble;
}

// Tables of this process alone, made from a file and gone with it.
class PrivateTables {
public:
    bool fill(const std::string &file) {
        zelPlatformSetShmPrefix(("zelpolicy-" + std::to_string(getpid())).c_str());
        isMade_ = true;
        PolicyConfig config;
        const auto problems = zel::programs::readPolicyFile(file, config);
        for (const auto &problem : problems)
            fprintf(stderr, "%s:%u:%u: %s\n", file.c_str(), problem.line, problem.column, problem.text.c_str());
        zelAclMgr *manager = problems.empty() ? zelAclMgrOpen(ZEL_ACLMGR_PRIMARY) : nullptr;
        if (manager == nullptr) return false;
        const auto failures = zel::programs::applyPolicyConfig(manager, config).failures;
        for (const std::string &failure : failures) fprintf(stderr, "zelpolicy: %s\n", failure.c_str());
        zelAclMgrClose(manager);
        return failures.empty();
    }
    ~PrivateTables() {
        if (isMade_) zelPlatformUnlinkSegments();
    }

private:
    bool isMade_ = false;
};

// Names of lists are any bytes; what is no UTF-8 in them is replaced.
void print(const ordered_json &json) {
    printf("%s\n", json.dump(2, ' ', false, ordered_json::error_handler_t::replace).c_str());
}

void print(const Options &options, const std::string &question, const zelpolicy::Answer &answer) {
    const char *verdict = answer.verdict == 0 ? "permit" : "deny";
    if (options.json) {
        ordered_json json{
            {"question", question}, {"list", answer.list}, {"verdict", verdict}, {"code", answer.verdict}};
        if (options.explains) {
            json["sequence"] = answer.sequence;
            json["entry"] = answer.entry;
            if (answer.hits) json["hits"] = *answer.hits;
            json["why"] = answer.why;
        }
        return print(json);
    }
    printf("%s\n", verdict);
    if (!options.explains) return;
    const std::string hits = answer.hits ? ", " + std::to_string(*answer.hits) + " hits before" : "";
    if (answer.sequence != 0) printf("  seq %u %s%s\n", answer.sequence, answer.entry.c_str(), hits.c_str());
    printf("  %s\n", answer.why.c_str());
}

template <class Entry, class Text>
void addLists(ordered_json &all, const char *kind, const Lists<Entry> &lists, const Text &text) {
    for (const auto &[name, list] : lists) {
        ordered_json entries = ordered_json::array();
        for (const Entry &entry : list) {
            entries.push_back({{"sequence", entry.sequence}, {"entry", text(entry)}});
            if constexpr (requires { entry.hits; }) entries.back()["hits"] = entry.hits;
        }
        all.push_back({{"kind", kind}, {"name", name}, {"entries", entries}});
    }
}

ordered_json jsonOf(const PolicyConfig &lists) {
    ordered_json all = ordered_json::array();
    const auto text = [](const auto &entry) { return textOf(entry); };
    const auto prefixText = [](int family) { return [family](const auto &entry) { return textOf(entry, family); }; };
    addLists(all, "acl", lists.ip, text);
    addLists(all, "acl6", lists.ipv6, text);
    addLists(all, "prefix", lists.prefix, prefixText(ZEL_POLICY_IPV4));
    addLists(all, "prefix6", lists.prefix6, prefixText(ZEL_POLICY_IPV6));
    addLists(all, "aspath", lists.paths, text);
    addLists(all, "community", lists.communities, text);
    addLists(all, "routemap", lists.maps, text);
    return all;
}

void print(const Options &options, const PolicyConfig &lists) {
    if (options.json)
        print(jsonOf(lists));
    else
        printf("%s", textOf(lists, options.hits).c_str());
}

ordered_json jsonOf(const zelpolicy::BulkResult &result) {
    ordered_json json{{"routes", result.routes},
                      {"unreadable", result.unreadable},
                      {"permittedByAll", result.permittedByAll},
                      {"seconds", result.seconds}};
    for (const auto &list : result.lists) {
        ordered_json entries = ordered_json::array();
        for (const auto &entry : list.entries)
            entries.push_back({{"sequence", entry.sequence}, {"entry", entry.text}, {"routes", entry.routes}});
        json["lists"].push_back({{"kind", list.list.kind},
                                 {"name", list.list.name},
                                 {"permitted", list.permitted},
                                 {"denied", list.denied},
                                 {"entries", entries}});
    }
    return json;
}

void print(const zelpolicy::BulkResult &result) {
    for (const auto &list : result.lists) {
        printf("%s %s: %lu permitted, %lu denied\n", list.list.kind.c_str(), list.list.name.c_str(), list.permitted,
               list.denied);
        for (const auto &entry : list.entries) printf("%10lu  %s\n", entry.routes, entry.text.c_str());
    }
    printf("%lu routes, %lu permitted by all, %.3f s of checks\n", result.routes, result.permittedByAll,
           result.seconds);
    if (result.unreadable != 0) printf("%lu lines are no routes\n", result.unreadable);
}

int bulk(const Options &options, const Words &words, const PolicyConfig &lists) {
    if (words.size() < 3 || words.size() % 2 == 0) return refuse("bulk TABLE KIND NAME [KIND NAME]...");
    std::vector<zelpolicy::BulkList> asked;
    for (std::size_t i = 1; i < words.size(); i += 2) asked.push_back({words[i], words[i + 1]});
    zelpolicy::BulkResult result;
    std::string error;
    if (!zelpolicy::runBulk(words[0], asked, lists, result, error)) return refuse(error);
    if (options.json)
        print(jsonOf(result));
    else
        print(result);
    return permits;
}

int ask(zelAclMgr *manager, const Options &options, const std::string &question, const Words &words) {
    if (question == "list") return print(options, zel::programs::readPolicyTables(manager)), permits;
    if (question == "bulk") return bulk(options, words, zel::programs::readPolicyTables(manager));
    zelpolicy::Answer answer;
    std::string error;
    {
        const zel::programs::PolicyReadLock lock;  // the entry that is shown is the one that decides
        const PolicyConfig lists = zel::programs::readPolicyTables(manager);
        if (!zelpolicy::answer(question, words, lists, answer, error)) return refuse(error);
    }
    print(options, question, answer);
    return answer.verdict == 0 ? permits : denies;
}

int askTables(const Options &options, const std::string &question, const Words &words) {
    if (zelPlatformHasSegments() == 0) return refuse("no manager has run on this CPU");
    zelAclMgr *manager = zelAclMgrOpenToRead(ZEL_ACLMGR_PRIMARY);
    if (manager == nullptr && errno == ENOENT) return refuse("no manager of policy lists has run on this CPU");
    if (manager == nullptr) return perror("zelpolicy: the policy tables cannot be had"), trouble;
    const int status = ask(manager, options, question, words);
    zelAclMgrClose(manager);
    return status;
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): JSON throws for what is no UTF-8, unless it is to be replaced
int main(int argc, char **argv) {
    Options options;
    if (!readOptions(argc, argv, help,
                     {{"config", 'c', takeText(options.config)},
                      {"explain", 'e', takeFlag(options.explains)},
                      {"hits", 0, takeFlag(options.hits)},
                      {"json", 0, takeFlag(options.json)}},
                     OtherWords::anywhere))
        return trouble;
    if (optind == argc) return fputs(help, stderr), trouble;
    PrivateTables tables;
    if (!options.config.empty() && !tables.fill(options.config)) return trouble;
    return askTables(options, argv[optind], Words(argv + optind + 1, argv + argc));
}
