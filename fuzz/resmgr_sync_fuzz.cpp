// Any bytes as synchronisation messages, one after the other, at a process of any role: nothing is read beyond them,
// and the tables stay sound.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/wire.h"
#include "tests/resmgr/audit.h"
#include "zel/platform.h"

namespace {

using namespace zel::test;

int role;

int drop(const void *, uint32_t) {
    return 0;
}

// A message of the length given, or one whose frame was put right so that its contents are looked at.
void receive(const uint8_t *bytes, uint32_t length, bool isFramed) {
    const auto message = std::make_unique<uint8_t[]>(length + 1);
    memcpy(message.get(), bytes, length);
    if (isFramed && length >= 16) {
        zel::wire::store<uint32_t>(message.get(), ZEL_RES_SYNC_MAGIC);
        zel::wire::store<uint16_t>(message.get() + 4, ZEL_RES_SYNC_VERSION);
        zel::wire::store<uint16_t>(message.get() + 10, static_cast<uint16_t>(length));
    }
    const uint32_t before = gResMgrTcb.refused + gResMgrTcb.untimely;
    const int result = resMgmtLibRecvSync(message.get(), length, bytes[0] & 1);
    if (result == 0 && before != gResMgrTcb.refused + gResMgrTcb.untimely) abort();
}

}  // namespace

// The first byte is the role; then messages, each behind its length in two bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 1) return 0;
    role = data[0] & 2;
    zelPlatformSetPrimaryRpm(1);
    registerTestClient(nullptr, [] { return role; });
    resMgmtLibSetTransport(drop, drop);
    createDatabase(0, 99, ZEL_RES_PEER_AWARE);
    int32_t index;
    for (uint32_t number = 0; number < 4; ++number) addKey(number, &index);
    zelPlatformSetPrimaryRpm(data[0] & 1);
    for (std::size_t at = 1; at + 2 < size;) {
        const std::size_t wanted = zel::wire::load<uint16_t>(data + at) % 2048u, rest = size - at - 2;
        const std::size_t length = wanted < rest ? wanted : rest;
        if (length > 0) receive(data + at + 2, static_cast<uint32_t>(length), (data[0] & 4) != 0);
        at += 2 + length;
    }
    const std::string fault = audit();
    if (!fault.empty()) {
        fprintf(stderr, "%s\n", fault.c_str());
        abort();
    }
    resMgmtLibTerminate();
    zelPlatformSetPrimaryRpm(1);
    return 0;
}
