// The exact bytes of every message, against golden.txt.
#include "tests/wire/wire.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "zel/kernel.h"

namespace zel::test {
namespace {

std::map<std::string, bool (*)()> &rows() {
    static std::map<std::string, bool (*)()> all;
    return all;
}

FakeNetwork *installed = nullptr;

std::map<std::string, std::string> readGolden() {
    std::map<std::string, std::string> golden;
    std::ifstream file(ZEL_TEST_DIR "/wire/golden.txt");
    for (std::string line; std::getline(file, line);) {
        const auto colon = line.find(':');
        if (line.empty() || line[0] == '#' || colon == std::string::npos) continue;
        std::string &digits = golden[line.substr(0, colon)];
        std::istringstream words(line.substr(colon + 1));
        for (std::string word; words >> word;) {
            const auto star = word.find('*');
            const int times = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1));
            for (int i = 0; i < times; ++i) digits += word.substr(0, star);
        }
    }
    return golden;
}

std::string hex(const Bytes &bytes) {
    std::string digits;
    for (const std::uint8_t byte : bytes) {
        digits += "0123456789abcdef"[byte >> 4];
        digits += "0123456789abcdef"[byte & 15];
    }
    return digits;
}

// So that the first queue of every row is number 1.
void removeQueues() {
    for (std::uint32_t queue = 1; queue <= ZEL_SWP_MAX_QUEUES; ++queue)
        if (zelSwpIsQueueAlive(queue) == 1) zelSwpQueueRemove(queue);
}

}  // namespace

Wire::Wire(const char *name, bool (*body)()) {
    rows()[name] = body;
}

FakeNetwork &Wire::network() {
    return *installed;
}

TEST(Wire, EveryMessageHasItsGoldenBytes) {
    ASSERT_EQ(zelIpcOpen(Wire::service, Wire::instance), static_cast<int>(Wire::key));
    ASSERT_EQ(zelIpcOpenTmrQueue(Wire::key), static_cast<int>(Wire::key));
    const zelTmeGlobals globals{Wire::address, 0, {Wire::address, Wire::peer}};
    ASSERT_EQ(zelTmeSetGlobals(&globals), 0);
    ASSERT_EQ(zelTmeSetTaskEntry(76, 0, ZEL_TME_REMOTE, Wire::peer), 0);
    FakeNetwork network;
    installed = &network;
    auto golden = readGolden();
    for (const auto &[name, body] : rows()) {
        network.sent.clear();
        network.onSend = nullptr;
        EXPECT_TRUE(body()) << name;
        ASSERT_FALSE(network.sent.empty()) << name;
        std::string sent = hex(network.sent.back().bytes);
        for (std::size_t i = 0; i < sent.size() && i < golden[name].size(); ++i)
            if (golden[name][i] == '.') sent[i] = '.';
        EXPECT_EQ(sent, golden[name]) << name;
        golden.erase(name);
        removeQueues();
    }
    for (const auto &[name, digits] : golden) ADD_FAILURE() << "no row sends " << name;
}

}  // namespace zel::test
