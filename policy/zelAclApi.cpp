// The public faces of the access-list checks: by name or by handle, in either set of tables, with the read lock or
// without; the lock of the tables, and the roots that the manager asks for.
//
// The forms with m_ and Ext are the primary ones as long as isAclSupportedOnRp2 says that the second set of tables is
// not supported, which it always does; their plain forms do read the second set.
#include "policy/acl_match.h"
#include "policy/read_lock.h"
#include "policy/tables.h"
#include "zel/platform.h"

namespace zel::policy {
namespace {

zelIpAcl *find(ControlBlock Root::*tables, const char *name) {
    Root *segment = root();
    return segment != nullptr ? static_cast<zelIpAcl *>(findList(segment->*tables, Kind::ipAcl, name)) : nullptr;
}

zelRadix *treeOf(Kind kind) {
    Root *segment = root();
    return segment != nullptr ? &segment->aclNode.trees[static_cast<std::size_t>(kind)] : nullptr;
}

}  // namespace
}  // namespace zel::policy

using namespace zel::policy;

// ---- Lists by name

zelIpAcl *ipAccessListFind(const char *name) {
    return find(&Root::aclNode, name);
}
zelIpAcl *aclV6AccessListFind(const char *name) {
    return find(&Root::aclNode, name);
}
zelIpAcl *m_ipAccessListFind(const char *name) {
    return find(&Root::acl2CB, name);
}
zelIpAcl *m_aclV6AccessListFind(const char *name) {
    return find(&Root::acl2CB, name);
}

// ---- Checks

uint32_t ipAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination) {
    return checkIp(imageOf(list, Kind::ipAcl), source, destination);
}
uint32_t ipAccessListCheck(const char *name, uint32_t source, uint32_t destination) {
    return ipAccessListCheckWithHandle(ipAccessListFind(name), source, destination);
}
uint32_t ipUdpAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination,
                                        uint16_t sourcePort, uint16_t destinationPort) {
    return ipUdpFilterCheck(source, destination, sourcePort, destinationPort, list);
}
uint32_t ipUdpAccessListCheck(const char *name, uint32_t source, uint32_t, uint32_t destination, uint32_t,
                              uint16_t sourcePort, uint16_t destinationPort) {
    return ipUdpFilterCheck(source, destination, sourcePort, destinationPort, ipAccessListFind(name));
}
uint32_t aclV6AccessListCheckWithHandle(const zelIpAcl *list, const uint8_t source[16], const uint8_t destination[16]) {
    return aclV6FilterCheck(source, destination, list);
}
uint32_t aclV6AccessListCheck(const char *name, const uint8_t source[16], const uint8_t destination[16]) {
    return aclV6FilterCheck(source, destination, aclV6AccessListFind(name));
}

// ---- The same in the second set of tables; a handle is of the set in which it was found

uint32_t m_ipAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination) {
    return ipAccessListCheckWithHandle(list, source, destination);
}
uint32_t m_ipAccessListCheck(const char *name, uint32_t source, uint32_t destination) {
    return ipAccessListCheckWithHandle(m_ipAccessListFind(name), source, destination);
}
uint32_t m_ipUdpAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination,
                                          uint16_t sourcePort, uint16_t destinationPort) {
    return ipUdpFilterCheck(source, destination, sourcePort, destinationPort, list);
}
uint32_t m_ipUdpAccessListCheck(const char *name, uint32_t source, uint32_t, uint32_t destination, uint32_t,
                                uint16_t sourcePort, uint16_t destinationPort) {
    return ipUdpFilterCheck(source, destination, sourcePort, destinationPort, m_ipAccessListFind(name));
}
uint32_t m_aclV6AccessListCheckWithHandle(const zelIpAcl *list, const uint8_t source[16],
                                          const uint8_t destination[16]) {
    return aclV6FilterCheck(source, destination, list);
}
uint32_t m_aclV6AccessListCheck(const char *name, const uint8_t source[16], const uint8_t destination[16]) {
    return aclV6FilterCheck(source, destination, m_aclV6AccessListFind(name));
}

// ---- With the read lock

uint32_t ipAccessListCheckExt(const char *name, uint32_t source, uint32_t destination) {
    return lockedCheck(ipAccessListCheck, name, source, destination);
}
uint32_t ipAccessListCheckWithHandleExt(const zelIpAcl *list, uint32_t source, uint32_t destination) {
    return lockedCheck(ipAccessListCheckWithHandle, list, source, destination);
}
uint32_t ipUdpAccessListCheckExt(const char *name, uint32_t source, uint32_t unused1, uint32_t destination,
                                 uint32_t unused2, uint16_t sourcePort, uint16_t destinationPort) {
    return lockedCheck(ipUdpAccessListCheck, name, source, unused1, destination, unused2, sourcePort, destinationPort);
}

int isAclSupportedOnRp2(void) {
    return 0;
}

uint32_t m_ipAccessListCheckExt(const char *name, uint32_t source, uint32_t destination) {
    return lockedCheck(isAclSupportedOnRp2() ? m_ipAccessListCheck : ipAccessListCheck, name, source, destination);
}
uint32_t m_ipAccessListCheckWithHandleExt(const zelIpAcl *list, uint32_t source, uint32_t destination) {
    return lockedCheck(isAclSupportedOnRp2() ? m_ipAccessListCheckWithHandle : ipAccessListCheckWithHandle, list,
                       source, destination);
}
uint32_t m_ipUdpAccessListCheckExt(const char *name, uint32_t source, uint32_t unused1, uint32_t destination,
                                   uint32_t unused2, uint16_t sourcePort, uint16_t destinationPort) {
    return lockedCheck(isAclSupportedOnRp2() ? m_ipUdpAccessListCheck : ipUdpAccessListCheck, name, source, unused1,
                       destination, unused2, sourcePort, destinationPort);
}

// ---- The lock

#define LOCK_FORM(name, call)             \
    int name(void) {                      \
        return call(ZEL_SHM_LOCK_POLICY); \
    }
LOCK_FORM(aclReadLock, ZEL_ShmReadLock)
LOCK_FORM(acl2ReadLock, ZEL_ShmReadLock)
LOCK_FORM(aclReadLockExt, ZEL_ShmReadLock)
LOCK_FORM(acl2ReadLockExt, ZEL_ShmReadLock)
LOCK_FORM(aclReadUnlock, ZEL_ShmReadUnLock)
LOCK_FORM(acl2ReadUnlock, ZEL_ShmReadUnLock)
LOCK_FORM(aclReadUnlockExt, ZEL_ShmReadUnLock)
LOCK_FORM(acl2ReadUnlockExt, ZEL_ShmReadUnLock)
LOCK_FORM(aclWriteLock, ZEL_ShmWriteLock)
LOCK_FORM(acl2WriteLock, ZEL_ShmWriteLock)
LOCK_FORM(acl2WriteLockExt, ZEL_ShmWriteLock)
LOCK_FORM(aclWriteUnlock, ZEL_ShmWriteUnLock)
LOCK_FORM(acl2WriteUnlock, ZEL_ShmWriteUnLock)
LOCK_FORM(acl2WriteUnlockExt, ZEL_ShmWriteUnLock)
#undef LOCK_FORM

// ---- Roots for the manager

zelRadix *aclMgrIpMacAclGetTreeHndle(void) {
    return treeOf(Kind::macAcl);
}
zelRadix *aclMgrDhcpSnoopGetTreeHndle(void) {
    return treeOf(Kind::dhcpSnoop);
}
zelRadix *aclMgrDhcpHelperGetTreeHndle(void) {
    return treeOf(Kind::dhcpHelper);
}
