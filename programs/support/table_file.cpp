#include "programs/support/table_file.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>

extern char **environ;

namespace zel::programs {
namespace {

// A file, or the output of xz reading it.
class Source {
public:
    explicit Source(const std::string &path) {
        file_ = path.ends_with(".xz") ? unpack(path) : fopen(path.c_str(), "re");
    }
    Source(const Source &) = delete;
    ~Source() { close(); }

    FILE *file() const { return file_; }

    // Whether everything was read and unpacked.
    bool close() {
        if (!file_) return false;
        bool isComplete = !ferror(file_);
        fclose(file_);
        file_ = nullptr;
        int status = 0;
        if (pid_ > 0) isComplete &= waitpid(pid_, &status, 0) == pid_ && status == 0;
        return isComplete;
    }

private:
    FILE *unpack(const std::string &path) {
        int ends[2];
        if (access(path.c_str(), R_OK) != 0 || pipe2(ends, O_CLOEXEC) != 0) return nullptr;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        char program[] = "xz", flags[] = "-dc", dashes[] = "--";
        std::string name = path;
        char *argv[] = {program, flags, dashes, name.data(), nullptr};
        const int error = posix_spawnp(&pid_, program, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        if (error == 0) return fdopen(ends[0], "r");
        ::close(ends[0]);
        return nullptr;
    }

    FILE *file_ = nullptr;
    pid_t pid_ = -1;
};

std::string_view takeColumn(std::string_view &rest) {
    const std::size_t end = rest.find('|');
    const std::string_view text = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    return text;
}

bool parseAddress(std::string_view text, std::uint8_t family, std::uint8_t *address) {
    char terminated[INET6_ADDRSTRLEN] = {};
    if (text.size() >= sizeof terminated) return false;
    std::memcpy(terminated, text.data(), text.size());
    return inet_pton(family == ZEL_RTM_IPV6_UNICAST ? AF_INET6 : AF_INET, terminated, address) == 1;
}

bool parsePrefix(std::string_view text, Row &row) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return false;
    row.family = text.find(':') != std::string_view::npos ? ZEL_RTM_IPV6_UNICAST : ZEL_RTM_IPV4_UNICAST;
    const std::string_view length = text.substr(slash + 1);
    const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), row.bits);
    const int most = row.family == ZEL_RTM_IPV6_UNICAST ? 128 : 32;
    return error == std::errc() && end == length.data() + length.size() && row.bits <= most &&
           parseAddress(text.substr(0, slash), row.family, row.prefix);
}

bool parseRow(std::string_view line, TableFile &table) {
    Row row{};
    if (line.starts_with("A|") || line.starts_with("W|")) {
        row.isWithdrawal = line.front() == 'W';
        takeColumn(line);
        takeColumn(line);
    }
    if (!parsePrefix(takeColumn(line), row)) return false;
    if (!row.isWithdrawal) {
        Attributes attributes;
        if (!parseAddress(takeColumn(line), row.family, row.nextHop)) return false;
        const std::string_view path = takeColumn(line);
        if (!encodeAttributes(path, takeColumn(line), attributes)) return false;
        table.communitiesCut += attributes.communitiesCut;
        table.routesCut += attributes.communitiesCut > 0;
        table.pathsCut += attributes.numbersCut > 0;
        row.attributes = static_cast<std::uint32_t>(table.store.size());
        row.attributesLength = attributes.length;
        table.store.insert(table.store.end(), attributes.bytes, attributes.bytes + attributes.length);
    }
    table.rows.push_back(row);
    return true;
}

}  // namespace

bool readLines(const std::string &path, const std::function<void(std::string_view)> &line) {
    Source source(path);
    if (!source.file()) return false;
    char *text = nullptr;
    std::size_t room = 0;
    for (ssize_t length; (length = getline(&text, &room, source.file())) >= 0;) {
        std::string_view view(text, static_cast<std::size_t>(length));
        if (view.ends_with('\n')) view.remove_suffix(1);
        line(view);
    }
    free(text);
    return source.close();
}

bool readTable(const std::string &path, TableFile &table) {
    unsigned long number = 0;
    return readLines(path, [&](std::string_view line) {
        ++number;
        if (line.empty() || line.front() == '#' || parseRow(line, table)) return;
        if (table.unreadable++ == 0) table.firstUnreadable = number;
    });
}

void routeOfRow(const TableFile &table, const Row &row, zelRtmRoute &route) {
    std::memcpy(route.prefix, row.prefix, sizeof route.prefix);
    std::memset(route.mask, 0, sizeof route.mask);
    std::memset(route.mask, 0xff, row.bits / 8);
    if (row.bits % 8) route.mask[row.bits / 8] = static_cast<std::uint8_t>(0xff00 >> row.bits % 8);
    route.nNextHops = row.isWithdrawal ? 0 : 1;
    std::memcpy(route.hop[0].addr, row.nextHop, sizeof row.nextHop);
    route.tlvLen = row.attributesLength;
    route.tlv = table.store.data() + row.attributes;
}

}  // namespace zel::programs
