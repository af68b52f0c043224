// The kinds of list, each with its codes and with what its own source supplies.
#include "aclmgr/acl_image.h"
#include "aclmgr/attribute_lists.h"
#include "aclmgr/draft.h"
#include "aclmgr/prefix_image.h"
#include "aclmgr/route_map_image.h"

namespace zel::aclmgr {
namespace {

// In the order of zelAclMgrKind.
constexpr KindRow rows[] = {
    {Kind::ipAcl, 0x39000001, 0x39000003, 0x39000068, &ipOperations},
    {Kind::ipAcl, 0x39000001, 0x39000003, 0x39000068, &ipv6Operations},
    {Kind::prefix4, 0x39000020, 0x39000022, 0x3900006a, &prefix4Operations},
    {Kind::prefix6, 0x39000020, 0x39000022, 0x3900006a, &prefix6Operations},
    {Kind::asPath, 0x39000011, 0x39000013, 0x3900006c, &aspOperations},
    {Kind::community, 0x39000016, 0x39000018, 0x3900006b, &commOperations},
    {Kind::routeMap, 0x39000006, 0x39000007, 0x39000069, &mapOperations},
};

}  // namespace

const KindRow *rowOf(zelAclMgrKind kind) {
    const auto index = static_cast<std::size_t>(kind);
    return index < std::size(rows) ? &rows[index] : nullptr;
}

const ListOperations *operationsOf(Kind kind) {
    for (const KindRow &row : rows)
        if (row.kind == kind && row.operations != nullptr) return row.operations;
    return nullptr;
}

}  // namespace zel::aclmgr
