// The public forms of the prefix-list check. They differ in how the list is named, how address and length are given,
// which set of tables the name is looked up in, and who takes the read lock; all come to `checkPrefix`.
#include "policy/prefix_match.h"
#include "policy/read_lock.h"
#include "zel/policy.h"

namespace zel::policy {
namespace {

constexpr std::uint32_t permit = 0, deny = 1;

ListNode *named(ControlBlock Root::*tables, const char *name, int family) {
    Root *tree = widthOf(family) != 0 ? root() : nullptr;
    return tree != nullptr ? findList(tree->*tables, prefixKind(family), name) : nullptr;
}

std::uint32_t checkWord(const ListNode *list, std::uint32_t address, std::uint32_t mask) {
    return checkPrefix(list, Key<4>(address), lengthOfMask(mask));
}

// Without a mask no entry matches, as without an address.
std::uint32_t checkBytes(const ListNode *list, const std::uint8_t *address, const std::uint8_t *mask, int family) {
    const std::uint8_t length = mask != nullptr ? lengthOfMask(mask, widthOf(family)) : 0;
    return checkPrefix(list, mask != nullptr ? address : nullptr, length, family);
}

std::uint32_t check(const zelPrefixListName &list, const std::uint8_t *address, std::uint8_t length, int family) {
    const ListNode *node = list.node != nullptr ? list.node : named(&Root::aclNode, list.name, family);
    return checkPrefix(node, address, length, family);
}

}  // namespace
}  // namespace zel::policy

using namespace zel::policy;

zelPrefixList *ipPrefixListFind(const char *name, zelRadix *tree, int family) {
    if (tree == nullptr) return static_cast<zelPrefixList *>(named(&Root::aclNode, name, family));
    if (widthOf(family) == 0) return nullptr;
    return static_cast<zelPrefixList *>(findList(tree, prefixKind(family), name));
}

// ---- IPv4 ----------------------------------------------------------------------------------------------------------

uint32_t prefixListCheck(const char *name, uint32_t address, uint32_t mask) {
    return checkWord(named(&Root::aclNode, name, ZEL_POLICY_IPV4), address, mask);
}

uint32_t prefixListCheckWithHandle(zelPrefixList *list, uint32_t address, uint32_t mask) {
    return checkWord(list, address, mask);
}

uint32_t prefixFilterCheck(uint32_t address, uint32_t mask, zelPrefixList *list) {
    return checkWord(list, address, mask);
}

// ---- Either family -------------------------------------------------------------------------------------------------

uint32_t prefixListCheckv4_v6(const char *name, const uint8_t *address, const uint8_t *mask, int family) {
    return checkBytes(named(&Root::aclNode, name, family), address, mask, family);
}

uint32_t prefixListCheckWithHandlev4_v6(zelPrefixList *list, const uint8_t *address, const uint8_t *mask, int family) {
    return checkBytes(list, address, mask, family);
}

uint32_t prefixFilterCheckv4_v6(const uint8_t *address, const uint8_t *mask, zelPrefixList *list, int family) {
    return checkBytes(list, address, mask, family);
}

uint32_t prefixListCheck2(zelPrefixList *node, const char *name, const uint8_t *address, uint8_t length) {
    if (address == nullptr || (address[0] != 4 && address[0] != 16)) return deny;
    return check({node, name}, address + 1, length, address[0] == 4 ? ZEL_POLICY_IPV4 : ZEL_POLICY_IPV6);
}

uint32_t prefixListCheckNew(zelPrefixList *node, const char *name, const uint8_t *address, uint8_t length, int family,
                            zelRadix *tree) {
    return checkPrefix(node != nullptr ? node : ipPrefixListFind(name, tree, family), address, length, family);
}

uint32_t prefixListCheckNew1(const zelPrefixListName *list, const uint8_t *address, uint8_t length, int family) {
    return list != nullptr ? check(*list, address, length, family) : permit;
}

uint32_t bgp_match_addr(const zelPrefixListName *list, const uint8_t *address, uint8_t length, int family) {
    return prefixListCheckNew1(list, address, length, family);
}

// ---- Under the read lock -------------------------------------------------------------------------------------------

uint32_t prefixListCheckExt(const char *name, uint32_t address, uint32_t mask) {
    return lockedCheck(prefixListCheck, name, address, mask);
}

uint32_t prefixListCheckWithHandleExt(zelPrefixList *list, uint32_t address, uint32_t mask) {
    return lockedCheck(prefixListCheckWithHandle, list, address, mask);
}

uint32_t prefixListCheckv4_v6Ext(const char *name, const uint8_t *address, const uint8_t *mask, int family) {
    return lockedCheck(prefixListCheckv4_v6, name, address, mask, family);
}

uint32_t prefixListCheckWithHandlev4_v6Ext(zelPrefixList *list, const uint8_t *address, const uint8_t *mask,
                                           int family) {
    return lockedCheck(prefixListCheckWithHandlev4_v6, list, address, mask, family);
}

uint32_t prefixListCheckNew_Ext(zelPrefixList *node, const char *name, const uint8_t *address, uint8_t length,
                                int family, zelRadix *tree) {
    return lockedCheck(prefixListCheckNew, node, name, address, length, family, tree);
}

// ---- The second set of tables --------------------------------------------------------------------------------------

uint32_t m_prefixListCheck(const char *name, uint32_t address, uint32_t mask) {
    return checkWord(named(&Root::acl2CB, name, ZEL_POLICY_IPV4), address, mask);
}

uint32_t m_prefixListCheckWithHandle(zelPrefixList *list, uint32_t address, uint32_t mask) {
    return checkWord(list, address, mask);
}

uint32_t m_prefixListCheckv4_v6(const char *name, const uint8_t *address, const uint8_t *mask, int family) {
    return checkBytes(named(&Root::acl2CB, name, family), address, mask, family);
}

uint32_t m_prefixListCheckWithHandlev4_v6(zelPrefixList *list, const uint8_t *address, const uint8_t *mask,
                                          int family) {
    return checkBytes(list, address, mask, family);
}

uint32_t m_prefixListCheckExt(const char *name, uint32_t address, uint32_t mask) {
    return lockedCheck(isAclSupportedOnRp2() ? m_prefixListCheck : prefixListCheck, name, address, mask);
}

uint32_t m_prefixListCheckWithHandleExt(zelPrefixList *list, uint32_t address, uint32_t mask) {
    return prefixListCheckWithHandleExt(list, address, mask);
}

uint32_t m_prefixListCheckv4_v6Ext(const char *name, const uint8_t *address, const uint8_t *mask, int family) {
    return lockedCheck(isAclSupportedOnRp2() ? m_prefixListCheckv4_v6 : prefixListCheckv4_v6, name, address, mask,
                       family);
}

uint32_t m_prefixListCheckWithHandlev4_v6Ext(zelPrefixList *list, const uint8_t *address, const uint8_t *mask,
                                             int family) {
    return prefixListCheckWithHandlev4_v6Ext(list, address, mask, family);
}

// ---- Lengths -------------------------------------------------------------------------------------------------------

uint8_t acl_host_order_mask2plen(uint32_t mask) {
    return lengthOfMask(mask);
}

uint8_t acl_mask2plen(const uint8_t mask[16]) {
    return mask != nullptr ? lengthOfMask(mask, 16) : uint8_t{255};
}

int prefixListCmpEntInfo(int isDefault, uint8_t length, uint8_t prefixLength, uint8_t ge, uint8_t le, uint32_t width) {
    return acceptsLength(isDefault != 0, length, prefixLength, ge, le, 8 * width);
}

uint32_t prefixListEntry(const zelPrefixList *list, const uint8_t *address, uint8_t length, int family) {
    return entryOfPrefix(list, address, length, family);
}
