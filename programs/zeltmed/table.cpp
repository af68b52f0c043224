#include "table.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "zel/ipc.h"
#include "zel/platform.h"

namespace zeltmed {
namespace {

struct Row {
    Role role;
    zelTmeTaskEntry entry{};
    zelTmeEndpoint endpoint{};  // pid 0: no process of this CPU has it open
};

const char *stateName(std::uint32_t state) {
    switch (state) {
        case ZEL_TME_HERE:
            return "here";
        case ZEL_TME_DOWN:
            return "down";
        case ZEL_TME_REMOTE:
            return "remote";
        default:
            return "not ready";  // open, but it has not reported
    }
}

// False for what a dead process left behind.
bool isOwned(const zelTmeEndpoint &endpoint) {
    int owner = 0;
    return zelTaskIsDuplicate(endpoint.service, endpoint.instance, &owner) == 1;
}

std::vector<Row> readTable() {
    std::map<std::pair<int, int>, zelTmeEndpoint> endpoints;
    zelTmeEndpoint endpoint;
    for (uint32_t cursor = 0; zelTmeNextEndpoint(&cursor, &endpoint) == 1;)
        if (isOwned(endpoint)) endpoints[{endpoint.service, endpoint.instance}] = endpoint;
    std::vector<Row> rows;
    for (int service = ZEL_IPC_MIN_SERVICE; service <= ZEL_IPC_MAX_SERVICE; ++service)
        for (int instance = 0; instance < ZEL_IPC_MAX_INSTANCES; ++instance) {
            Row row{{service, instance}};
            zelTmeGetTaskEntry(service, instance, &row.entry);
            if (const auto found = endpoints.find({service, instance}); found != endpoints.end())
                row.endpoint = found->second;
            if (row.entry.state != ZEL_TME_NONE || row.endpoint.pid != 0) rows.push_back(row);
        }
    return rows;
}

std::string addressOf(const Row &row) {
    const bool isKnown = row.entry.address != 0 && row.entry.address != ZEL_IPC_NO_ADDRESS;
    return isKnown ? dotted(row.entry.address) : "-";
}

std::string quoted(const char *text) {
    std::string result = "\"";
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        char escaped[8];
        snprintf(escaped, sizeof escaped, byte < 0x20 || byte == '"' || byte == '\\' ? "\\u%04x" : "%c", byte);
        result += escaped;
    }
    return result + "\"";
}

void printText(const std::vector<Row> &rows) {
    printf("%-8s%-18s%-10s%-11s%-17s%-9s%s\n", "SERVICE", "NAME", "INSTANCE", "STATE", "ADDRESS", "PROCESS", "TASK");
    for (const Row &row : rows) {
        const std::string process = row.endpoint.pid != 0 ? std::to_string(row.endpoint.pid) : "-";
        printf("%-8d%-18s%-10d%-11s%-17s%-9s%s\n", row.role.service, zelTaskGetServiceName(row.role.service),
               row.role.instance, stateName(row.entry.state), addressOf(row).c_str(), process.c_str(),
               row.endpoint.pid != 0 ? row.endpoint.name : "-");
    }
}

void printJson(const std::vector<Row> &rows) {
    printf("{\"address\": \"%s\", \"instance\": %u, \"tasks\": [", dotted(zel_sysGetIpAddr()).c_str(),
           zel_sysGetInstance());
    const char *separator = "\n";
    for (const Row &row : rows) {
        printf(
            "%s  {\"service\": %d, \"name\": %s, \"instance\": %d, \"state\": %s, \"address\": %s, \"pid\": %d, "
            "\"task\": %s}",
            separator, row.role.service, quoted(zelTaskGetServiceName(row.role.service)).c_str(), row.role.instance,
            quoted(stateName(row.entry.state)).c_str(), quoted(addressOf(row).c_str()).c_str(),
            static_cast<int>(row.endpoint.pid), quoted(row.endpoint.name).c_str());
        separator = ",\n";
    }
    printf("\n]}\n");
}

}  // namespace

int runningManager() {
    if (!zelPlatformHasSegments()) return 0;
    zelTmeEndpoint endpoint;
    for (uint32_t cursor = 0; zelTmeNextEndpoint(&cursor, &endpoint) == 1;)
        if (endpoint.service == ZEL_IPC_MIN_SERVICE && isOwned(endpoint)) return endpoint.pid;
    return 0;
}

int list(const Options &options) {
    if (runningManager() == 0) {
        fprintf(stderr, "zeltmed: no task manager runs on %s\n", dotted(zelPlatformIpcAddress()).c_str());
        return 1;
    }
    (options.json ? printJson : printText)(readTable());
    return 0;
}

int clean() {
    if (const int pid = runningManager(); pid != 0) {
        fprintf(stderr, "zeltmed: the task manager of %s runs as process %d; end it first\n",
                dotted(zelPlatformIpcAddress()).c_str(), pid);
        return 1;
    }
    if (zelPlatformUnlinkSegments() == 0) return 0;
    perror("zeltmed: the shared memory cannot be unlinked");
    return 1;
}

}  // namespace zeltmed
