// The image of a route map: behind the header the entries as they were given, their clauses, the names, all one behind
// the other. Its pointers are those of the segment's place in every process, so a writer can hand them out. A check
// follows none before what it leads to is known to lie in the image; of a name that is 140 bytes, terminated or not,
// which is why the image ends with as many bytes more.
#pragma once

#include <cstring>

#include "policy/tables.h"
#include "policy/tree_reader.h"
#include "zel/aclmgr.h"

namespace zel::policy {

// `count` objects at a pointer of the image, null when they are not all inside.
template <class T>
const T *insideAt(const Bytes &image, const T *place, std::size_t count) {
    const auto offset = reinterpret_cast<std::uintptr_t>(place) - reinterpret_cast<std::uintptr_t>(image.begin);
    return inside<T>(image, offset, count);
}

inline const zelAclMapEntry *mapEntriesOf(const Bytes &image, std::uint32_t &count) {
    count = readOnce(image.header()->entries);
    return inside<zelAclMapEntry>(image, sizeof(Image), count);
}

inline const zelAclClause *clausesOf(const Bytes &image, const zelAclMapEntry &entry, std::uint32_t &count) {
    count = readOnce(entry.count);
    return insideAt(image, readOnce(entry.clauses), count);
}

// What the clause asks: any number may stand there.
inline std::uint32_t matchOf(const zelAclClause &clause) {
    std::uint32_t match = 0;
    static_assert(sizeof clause.match == sizeof match);
    memcpy(&match, &clause.match, sizeof match);
    return match;
}

inline const char *const *namesOf(const Bytes &image, const zelAclClause &clause, std::uint32_t &count) {
    count = readOnce(clause.count);
    return insideAt(image, readOnce(clause.names), count);
}

inline const char *nameAt(const Bytes &image, const char *const &name) {
    return insideAt(image, readOnce(name), nameLength);
}

}  // namespace zel::policy
