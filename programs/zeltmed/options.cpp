#include "options.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <unistd.h>
#include <wordexp.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zel/ipc.h"

namespace zeltmed {
namespace {

constexpr const char *help =
    R"(usage: zeltmed [OPTION]...                     manage the tasks of this CPU
       zeltmed [--address A] [--prefix P] list [--json]
                                               print the task table of the running task manager
       zeltmed [--address A] [--prefix P] clean
                                               unlink the shared memory that a killed one left behind

The task manager is service 13 (TME) of its CPU: it fills in the CPU's globals, enters every task that reports ready
into the shared task table, watches the tasks' processes, and clears what a dead process leaves behind. SIGTERM and
SIGINT end it: the tasks it spawned get SIGTERM (and SIGKILL five seconds later), the shared memory is unlinked.

  -s, --spawn 'SERVICE[:INSTANCE] PROGRAM [ARG]...'
                        start PROGRAM as this task. The text is split as a shell does, without running commands. A
                        PROGRAM without a slash is looked for beside zeltmed, then in PATH. Tasks start in the order
                        given, each when the one before it has started up; one that has not within ten seconds is killed
      --respawn         start a spawned task again when it was killed by a signal, at most once a second
      --until SERVICE[:INSTANCE]
                        end when this spawned task has ended, with its exit status (128 + number for a signal). Given
                        several times: when all have, with the first status that is not 0
  -r, --remote SERVICE[:INSTANCE]=ADDRESS
                        enter a task that runs on another CPU
      --master ADDRESS  address of the master route processor; a second one is the standby (default: this CPU's)
      --instance N      system instance of this CPU, 0 to 28 (default 0)
  -a, --address ADDRESS this CPU's IPC address (default: ZEL_IPC_ADDR or 127.0.0.1)
      --prefix TEXT     first part of the names of shared memory (default: ZEL_SHM_PREFIX or "zel")
  -v, --verbose         print the messages of the library
      --json            list: JSON instead of a table
  -h, --help            this text

SERVICE is a number from 13 to 363 or a name such as RTM; INSTANCE is 0 to 31, 0 when not given.
)";

[[noreturn]] void refuse(const std::string &why) {
    fprintf(stderr, "zeltmed: %s\nTry 'zeltmed --help'.\n", why.c_str());
    exit(2);
}

int parseNumber(const std::string &text, int low, int high, const char *what) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high)
        refuse("'" + text + "' is no " + what + " (" + std::to_string(low) + " to " + std::to_string(high) + ")");
    return value;
}

int parseService(const std::string &text) {
    for (int service = ZEL_IPC_MIN_SERVICE; service <= ZEL_IPC_MAX_SERVICE; ++service)
        if (text == zelTaskGetServiceName(service)) return service;
    return parseNumber(text, ZEL_IPC_MIN_SERVICE, ZEL_IPC_MAX_SERVICE, "service");
}

Role parseRole(const std::string &text) {
    const std::size_t colon = text.find(':');
    Role role;
    role.service = parseService(text.substr(0, colon));
    if (colon != std::string::npos)
        role.instance = parseNumber(text.substr(colon + 1), 0, ZEL_IPC_MAX_INSTANCES - 1, "instance");
    return role;
}

std::uint32_t parseAddress(const std::string &text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) refuse("'" + text + "' is no IPv4 address");
    return ntohl(address.s_addr);
}

RemoteTask parseRemote(const std::string &text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) refuse("'" + text + "' lacks '=ADDRESS'");
    return {parseRole(text.substr(0, equals)), parseAddress(text.substr(equals + 1))};
}

bool isProgram(const std::string &path) {
    return access(path.c_str(), X_OK) == 0;
}

std::string ownDirectory() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string self(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return self.substr(0, self.rfind('/') + 1);
}

std::string findProgram(const std::string &name) {
    if (name.find('/') != std::string::npos) {
        if (isProgram(name)) return name;
        refuse("'" + name + "' cannot be run");
    }
    if (isProgram(ownDirectory() + name)) return ownDirectory() + name;
    const char *search = getenv("PATH");
    std::string path = search != nullptr ? search : "/usr/bin:/bin";
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(':', begin), path.size());
        std::string candidate = path.substr(begin, end - begin) + "/" + name;
        if (isProgram(candidate)) return candidate;
        begin = end + 1;
    }
    refuse("there is no program '" + name + "'");
}

SpawnOrder parseSpawn(const std::string &text) {
    wordexp_t words{};
    if (wordexp(text.c_str(), &words, WRDE_NOCMD | WRDE_UNDEF) != 0) refuse("cannot split '" + text + "' into words");
    std::vector<std::string> parts(words.we_wordv, words.we_wordv + words.we_wordc);
    wordfree(&words);
    if (parts.size() < 2) refuse("'" + text + "' names no program");
    SpawnOrder order;
    order.role = parseRole(parts[0]);
    order.path = findProgram(parts[1]);
    order.arguments.assign(parts.begin() + 2, parts.end());
    return order;
}

Command parseCommand(const std::string &word) {
    if (word == "list") return Command::list;
    if (word == "clean") return Command::clean;
    refuse("there is no command '" + word + "'");
}

void checkTogether(const Options &options) {
    const auto isSpawned = [&](const Role &role) {
        return std::any_of(options.spawns.begin(), options.spawns.end(),
                           [&](const SpawnOrder &order) { return order.role == role; });
    };
    for (const Role &role : options.until)
        if (!isSpawned(role)) refuse("--until names " + describe(role) + ", which is not spawned");
    if (options.masters.size() > 2) refuse("there are at most two masters");
}

enum LongOnly { optionRespawn = 256, optionUntil, optionMaster, optionInstance, optionPrefix, optionJson };

constexpr option longOptions[] = {
    {"spawn", required_argument, nullptr, 's'},
    {"respawn", no_argument, nullptr, optionRespawn},
    {"until", required_argument, nullptr, optionUntil},
    {"remote", required_argument, nullptr, 'r'},
    {"master", required_argument, nullptr, optionMaster},
    {"instance", required_argument, nullptr, optionInstance},
    {"address", required_argument, nullptr, 'a'},
    {"prefix", required_argument, nullptr, optionPrefix},
    {"verbose", no_argument, nullptr, 'v'},
    {"json", no_argument, nullptr, optionJson},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

void apply(Options &options, int option) {
    switch (option) {
        case 's':
            return options.spawns.push_back(parseSpawn(optarg));
        case 'r':
            return options.remotes.push_back(parseRemote(optarg));
        case 'v':
            options.verbose = true;
            return;
        case optionRespawn:
            options.respawn = true;
            return;
        case optionJson:
            options.json = true;
            return;
        case optionUntil:
            return options.until.push_back(parseRole(optarg));
        case optionMaster:
            return options.masters.push_back(parseAddress(optarg));
        case optionInstance:
            options.instance = static_cast<std::uint32_t>(parseNumber(optarg, 0, 28, "system instance"));
            return;
        case 'a':
            setenv("ZEL_IPC_ADDR", dotted(parseAddress(optarg)).c_str(), 1);
            return;
        case optionPrefix:
            setenv("ZEL_SHM_PREFIX", optarg, 1);
            return;
        case 'h':
            fputs(help, stdout);
            exit(0);
        default:
            refuse("the command line cannot be understood");
    }
}

}  // namespace

std::string describe(const Role &role) {
    return std::string(zelTaskGetServiceName(role.service)) + "(" + std::to_string(role.service) + "/" +
           std::to_string(role.instance) + ")";
}

std::string dotted(std::uint32_t address) {
    const in_addr raw{htonl(address)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &raw, text, sizeof text);
}

Options parseOptions(int argc, char **argv) {
    Options options;
    for (int option; (option = getopt_long(argc, argv, "s:r:a:vh", longOptions, nullptr)) != -1;)
        apply(options, option);
    if (optind < argc) options.command = parseCommand(argv[optind++]);
    if (optind < argc) refuse(std::string("'") + argv[optind] + "' is one word too many");
    checkTogether(options);
    return options;
}

}  // namespace zeltmed
