// Who this process is to the library: the CPU it belongs to, its platform, card and slot.
//
// Address and prefix are fixed when they are first used, because names of segments and bound ports follow from them.
#include <arpa/inet.h>
#include <errno.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "base/lock.h"
#include "platform/environment.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr std::uint32_t defaultAddress = 0x7f000001;
constexpr std::uint32_t invalidAddress = 0xffffffff;
constexpr std::size_t longestPrefix = 31;

Mutex identityLock{LockRank::identity, "&identity_lock"};
bool isAddressSet = false, isPrefixSet = false, isPrefixUsed = false;  // under identityLock
std::uint32_t address = 0;
char prefix[longestPrefix + 1] = "zel";
std::atomic<bool> isAddressUsed{false};  // from then on `address` does not change

std::atomic<int> platformType{0}, virtualSingle{0};
std::atomic<std::uint32_t> slotId{0}, peMasterAddress{0};
std::atomic<int> primaryRpm{1};

std::uint32_t addressFromEnvironment() {
    const char *text = environment("ZEL_IPC_ADDR");
    if (text == nullptr) return defaultAddress;
    in_addr parsed{};
    return inet_pton(AF_INET, text, &parsed) == 1 ? ntohl(parsed.s_addr) : invalidAddress;
}

bool isPrefix(const char *text) {
    return text != nullptr && *text != '\0' && strlen(text) <= longestPrefix && strchr(text, '/') == nullptr;
}

std::string usedPrefix() {
    Lock lock(identityLock);
    const char *text = isPrefixSet || isPrefixUsed ? nullptr : environment("ZEL_SHM_PREFIX");
    if (isPrefix(text)) strcpy(prefix, text);
    isPrefixUsed = true;
    return prefix;
}

int refuse(int error) {
    errno = error;
    return -1;
}

}  // namespace

const char *environment(const char *name) {
    return secure_getenv(name);
}

std::string segmentName(const char *kind) {
    const in_addr bytes{htonl(zelPlatformIpcAddress())};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &bytes, text, sizeof text);
    return "/" + usedPrefix() + "-" + text + "-" + kind;
}

gid_t segmentGroup() {
    const char *name = environment("ZEL_SHM_GROUP");
    const group *entry = name != nullptr ? getgrnam(name) : nullptr;
    return entry != nullptr ? entry->gr_gid : noGroup;
}

}  // namespace zel::platform

using namespace zel;
using namespace zel::platform;

uint32_t zelPlatformIpcAddress(void) {
    if (isAddressUsed.load(std::memory_order_acquire)) return address;
    Lock lock(identityLock);
    if (!isAddressSet) address = addressFromEnvironment();
    isAddressSet = true;
    isAddressUsed.store(true, std::memory_order_release);
    return address;
}

int zelPlatformSetIpcAddress(uint32_t newAddress) {
    Lock lock(identityLock);
    if (isAddressUsed) return newAddress == address ? 0 : refuse(EBUSY);
    address = newAddress;
    isAddressSet = true;
    return 0;
}

int zelPlatformSetShmPrefix(const char *newPrefix) {
    if (!isPrefix(newPrefix)) return refuse(EINVAL);
    Lock lock(identityLock);
    if (isPrefixUsed) return strcmp(prefix, newPrefix) == 0 ? 0 : refuse(EBUSY);
    strcpy(prefix, newPrefix);
    isPrefixSet = true;
    return 0;
}

__attribute__((weak)) int getPlatformType(void) {
    return platformType;
}
__attribute__((weak)) int ZELIsVirtualSingle(void) {
    return virtualSingle;
}
__attribute__((weak)) uint32_t zelSysGetSlotId(void) {
    return slotId;
}
__attribute__((weak)) int bcm_stk_get_local_rpm_slotid(void) {
    return static_cast<int>(slotId.load());
}
__attribute__((weak)) uint32_t zel_getPeMasterIpAddr(int) {
    return peMasterAddress;
}
__attribute__((weak)) int zelSysIsPrimaryRpm(void) {
    return primaryRpm;
}

void zelPlatformSetType(int type) {
    platformType = type;
}
void zelPlatformSetVirtualSingle(int isVirtualSingle) {
    virtualSingle = isVirtualSingle;
}
void zelPlatformSetSlotId(uint32_t slot) {
    slotId = slot;
}
void zelPlatformSetPeMasterAddress(uint32_t newAddress) {
    peMasterAddress = newAddress;
}
void zelPlatformSetPrimaryRpm(int isPrimary) {
    primaryRpm = isPrimary != 0;
}
