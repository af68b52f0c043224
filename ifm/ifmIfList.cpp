// Lists of interfaces: two ordered trees, of physical ports and of port channels, and a bitmap of VLANs.
//
// The index orders the three by itself - physical indexes are below every logical one, port channels (22) below VLANs
// (24) - so "the next member above an index" is the first answer of the parts asked in turn. A VLAN's place in that
// order is its number: the fields below and above it are constant.
#include <bit>
#include <initializer_list>

#include "zel/ifm.h"

namespace zel::ifm {
namespace {

constexpr const char *tag = "ifmIfList";

// What the trees hold: the key alone.
struct Member {
    uint32_t ifIndex;
};

zelRBTree *createTree() {
    return zelRBTreeCreate(tag, offsetof(Member, ifIndex), sizeof(uint32_t), nullptr, nullptr, _RBTCompareUL);
}

// Not 0, and nothing in the bit above the layouts: the order of members rests on that.
bool isIndex(uint32_t ifIndex) {
    return ifIndex != 0 && ifIndex >> 31 == 0;
}

// The tree in which an index belongs, null when it is no physical port and no port channel.
zelRBTree *treeOf(const ifmIfList *list, uint32_t ifIndex) {
    if (!isIndex(ifIndex)) return nullptr;
    if (ifmIfIndexToPlFlag(ifIndex)) return list->physical;
    return ifmIfIndexToIfType(ifIndex) == IFM_TYPE_PORT_CHANNEL ? list->lag : nullptr;
}

uint32_t vlanIndex(uint32_t vlanId) {
    return ifmCreateLogicalIfIndex(IFM_TYPE_VLAN, 0, 0, static_cast<uint16_t>(vlanId));
}

bool isVlan(uint32_t ifIndex) {
    return isIndex(ifIndex) && !ifmIfIndexToPlFlag(ifIndex) && ifmIfIndexToIfType(ifIndex) == IFM_TYPE_VLAN;
}

int addToTree(zelRBTree *tree, uint32_t ifIndex) {
    const Member probe = {ifIndex};
    if (zelRBTreeGetExact(tree, &probe)) return IFM_OK;
    auto *member = static_cast<Member *>(zelMC_malloc(tag, __LINE__, sizeof(Member)));
    if (!member) return IFM_ERR_NO_MEMORY;
    member->ifIndex = ifIndex;
    if (zelRBTreeInsert(tree, member)) return IFM_OK;
    zelMC_free(tag, __LINE__, member);
    return IFM_ERR_NO_MEMORY;
}

int removeFromTree(zelRBTree *tree, uint32_t ifIndex) {
    const Member probe = {ifIndex};
    void *member = zelRBTreeRemove(tree, &probe);
    if (!member) return IFM_ERR_NO_MEMBER;
    zelMC_free(tag, __LINE__, member);
    return IFM_OK;
}

void emptyTree(zelRBTree *tree) {
    while (void *member = zelRBTreeGetFirst(tree)) removeFromTree(tree, static_cast<Member *>(member)->ifIndex);
}

uint32_t nextInTree(zelRBTree *tree, uint32_t ifIndex) {
    const Member probe = {ifIndex};
    const auto *next = static_cast<Member *>(zelRBTreeGetNext(tree, &probe));
    return next ? next->ifIndex : 0;
}

// The index of the least VLAN in the list from `vlanId` on, or 0.
uint32_t vlanFrom(const ifmIfList *list, uint32_t vlanId) {
    uint32_t mask = 0xffffffffu >> (vlanId % 32);
    for (uint32_t word = vlanId / 32; word < IFM_VLAN_BITMAP_WORDS; ++word, mask = 0xffffffffu) {
        const uint32_t rest = list->vlans[word] & mask;
        if (rest) return vlanIndex(word * 32 + static_cast<uint32_t>(std::countl_zero(rest)));
    }
    return 0;
}

uint32_t nextVlan(const ifmIfList *list, uint32_t ifIndex) {
    if (ifIndex < vlanIndex(0)) return vlanFrom(list, 0);
    const bool isBehindAll = ifIndex >= vlanIndex(IFM_VLAN_BITMAP_WORDS * 32 - 1);
    return isBehindAll ? 0 : vlanFrom(list, ifmIfIndexToVlanId(ifIndex) + 1);
}

int addPosition(ifmIfList *list, int pos) {
    ifmIfInfo info;
    if (ifmIfPosToIfInfo(pos, &info) != IFM_OK) return IFM_OK;
    if (!info.physical)
        return ifmIfListAdd(list, ifmCreateLogicalIfIndex(info.type, 0, 0, static_cast<uint16_t>(info.num)));
    const zelCardTable *cards = zelPlatformCardTable();
    const uint32_t type = cards->portType(cards->context, static_cast<int>(info.slot), info.port);
    return ifmIfListAdd(
        list, ifmCreatePhysicalIfIndex(type, static_cast<uint16_t>(info.slot), static_cast<uint16_t>(info.port), 0));
}

}  // namespace
}  // namespace zel::ifm

using namespace zel::ifm;

int ifmIfListInit(ifmIfList *list) {
    if (!list) return IFM_ERROR;
    *list = {createTree(), createTree(), {}};
    if (list->physical && list->lag) return IFM_OK;
    ifmIfListDestroy(list);
    return IFM_ERR_NO_MEMORY;
}

void ifmIfListDestroy(ifmIfList *list) {
    if (!list) return;
    for (zelRBTree *tree : {list->physical, list->lag}) {
        if (!tree) continue;
        emptyTree(tree);
        zelRBTreeDestroy(tree);
    }
    *list = {};
}

int ifmIfListAdd(ifmIfList *list, uint32_t ifIndex) {
    if (!list) return IFM_ERROR;
    if (zelRBTree *tree = treeOf(list, ifIndex)) return addToTree(tree, ifIndex);
    if (!isVlan(ifIndex)) return IFM_ERR_TYPE;
    const uint32_t vlanId = ifmIfIndexToVlanId(ifIndex);
    ifmVlanIfListAddVlanId(list->vlans, vlanId);
    return ifmVlanIfListHasVlanId(list->vlans, vlanId) ? IFM_OK : IFM_ERR_TYPE;
}

int ifmIfListDel(ifmIfList *list, uint32_t ifIndex) {
    if (!ifmIfListHas(list, ifIndex)) return IFM_ERR_NO_MEMBER;
    if (zelRBTree *tree = treeOf(list, ifIndex)) return removeFromTree(tree, ifIndex);
    ifmVlanIfListDelVlanId(list->vlans, ifmIfIndexToVlanId(ifIndex));
    return IFM_OK;
}

uint32_t ifmIfListHas(const ifmIfList *list, uint32_t ifIndex) {
    if (!list) return 0;
    const Member probe = {ifIndex};
    if (zelRBTree *tree = treeOf(list, ifIndex)) return zelRBTreeGetExact(tree, &probe) != nullptr;
    return isVlan(ifIndex) && ifmVlanIfListHasVlanId(list->vlans, ifmIfIndexToVlanId(ifIndex));
}

uint32_t ifmIfListCount(const ifmIfList *list) {
    if (!list) return 0;
    uint32_t count = list->physical->numinodes + list->lag->numinodes;
    for (const uint32_t word : list->vlans) count += static_cast<uint32_t>(std::popcount(word));
    return count;
}

uint32_t ifmIfListNext(const ifmIfList *list, uint32_t ifIndex) {
    if (!list) return 0;
    for (zelRBTree *tree : {list->physical, list->lag})
        if (const uint32_t next = nextInTree(tree, ifIndex)) return next;
    return nextVlan(list, ifIndex);
}

void ifmIfListClear(ifmIfList *list) {
    if (!list) return;
    emptyTree(list->physical);
    emptyTree(list->lag);
    for (uint32_t &word : list->vlans) word = 0;
}

int ifmIfListCopy(ifmIfList *to, const ifmIfList *from) {
    if (!to || !from) return IFM_ERROR;
    ifmIfList copy;
    int result = ifmIfListInit(&copy);
    if (result != IFM_OK) return result;
    for (uint32_t member = 0; result == IFM_OK && (member = ifmIfListNext(from, member)) != 0;)
        result = ifmIfListAdd(&copy, member);
    ifmIfListDestroy(result == IFM_OK ? to : &copy);
    if (result == IFM_OK) *to = copy;
    return result;
}

uint32_t ifmIfListEqual(const ifmIfList *one, const ifmIfList *other) {
    if (!one || !other) return one == other;
    uint32_t mine = 0, theirs = 0;
    do {
        mine = ifmIfListNext(one, mine);
        theirs = ifmIfListNext(other, theirs);
    } while (mine == theirs && mine != 0);
    return mine == theirs;
}

int ifmIfListToMap(const ifmIfList *list, uint32_t *map) {
    if (!list || !map) return IFM_ERROR;
    for (int word = 0; word < IFM_IFLIST_MAP_WORDS; ++word) map[word] = 0;
    int leftOut = 0;
    for (uint32_t member = 0; (member = ifmIfListNext(list, member)) != 0;) {
        const int pos = ifmIfIndexToIfPos(member);
        if (pos >= 0)
            map[pos / 32] |= 0x80000000u >> (pos % 32);
        else
            ++leftOut;
    }
    return leftOut;
}

int ifmIfListFromMap(ifmIfList *list, const uint32_t *map) {
    if (!list || !map) return IFM_ERROR;
    int result = IFM_OK;
    for (int word = 0; word < IFM_IFLIST_MAP_WORDS; ++word)
        for (uint32_t rest = map[word]; rest != 0 && result != IFM_ERR_NO_MEMORY;) {
            const int bit = std::countl_zero(rest);
            rest &= ~(0x80000000u >> bit);
            result = addPosition(list, word * 32 + bit);
        }
    return result == IFM_ERR_NO_MEMORY ? result : IFM_OK;
}
