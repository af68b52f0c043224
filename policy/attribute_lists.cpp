// AS-path lists and community lists: the first entry that matches decides.
#include <cstring>
#include <optional>

#include "base/wire.h"
#include "policy/attribute_layout.h"
#include "policy/attribute_text.h"
#include "policy/expression.h"
#include "zel/platform.h"
#include "zel/policy.h"

namespace zel::policy {
namespace {

constexpr std::uint32_t permit = 0, deny = 1;
constexpr std::uint32_t noSuchList = 0x39000001;

// ---- AS paths -------------------------------------------------------------------------------------------------------

// The first entry that matches, or null; `count` is how many there are.
const AspEntry *firstMatch(const zelAspList *list, Subject &path, std::uint32_t &count) {
    const auto *entries = entriesOf<AspEntry>(imageOf(list, Kind::asPath), count);
    for (const AspEntry *entry = entries; entry < entries + count; ++entry) {
        zelRegex *expression = expressionAt(entry->expression);
        if (expression && path.matches(*expression)) return entry;
    }
    return nullptr;
}

int checkPath(const zelAspList *list, Subject &path) {
    std::uint32_t count = 0;
    const AspEntry *entry = firstMatch(list, path, count);
    return count == 0 || (entry && entry->action == 0) ? permit : deny;
}

std::uint32_t entryOf(const zelAspList *list, Subject &path) {
    std::uint32_t count = 0;
    const AspEntry *entry = firstMatch(list, path, count);
    return entry ? entry->sequence : 0;
}

// ---- Communities ----------------------------------------------------------------------------------------------------

// The communities of a route: host-order words, and the attribute they are for expressions.
class Communities {
public:
    Communities(const std::uint32_t *values, std::size_t count) : values_(values), count_(count) {}
    ~Communities() {
        if (bytes_ && bytes_ != own_) zelMC_free("zelAclLib", __LINE__, bytes_);
    }
    Communities(const Communities &) = delete;
    Communities &operator=(const Communities &) = delete;

    bool has(std::uint32_t value) const {
        for (std::size_t i = 0; i < count_; ++i)
            if (values_[i] == value) return true;
        return false;
    }
    std::size_t count() const { return count_; }
    std::uint32_t operator[](std::size_t i) const { return values_[i]; }

    bool matches(zelRegex &expression) {
        if (!subject_ && !makeSubject()) return false;
        return subject_->matches(expression);
    }

private:
    static constexpr std::size_t ownBytes = 512;

    bool makeSubject() {
        const std::size_t bytes = count_ * sizeof(std::uint32_t);
        bytes_ = bytes <= ownBytes ? own_ : static_cast<std::uint8_t *>(zelMC_malloc("zelAclLib", __LINE__, bytes));
        if (!bytes_) return false;
        for (std::size_t i = 0; i < count_; ++i)
            wire::store<std::uint32_t>(bytes_ + i * sizeof(std::uint32_t), values_[i]);
        subject_.emplace(bytes_, bytes, communitiesType, true);
        return true;
    }

    const std::uint32_t *values_;
    std::size_t count_;
    std::uint8_t *bytes_ = nullptr;
    std::optional<Subject> subject_;
    std::uint8_t own_[ownBytes];
};

struct Required {
    const Community *values;
    std::uint32_t count;
    bool wellKnown[3];
};
constexpr std::uint32_t wellKnownValues[3] = {localAsValue, noAdvertiseValue, noExportValue};

// What a standard entry asks for. Values that do not lie in the image are asked for in vain: `count` says how many.
Required requiredBy(const Bytes &image, const CommEntry &entry) {
    const std::uint32_t count = readOnce(entry.count);
    return {inside<Community>(image, entry.values, count),
            count,
            {entry.localAs != 0, entry.noAdvertise != 0, entry.noExport != 0}};
}

bool hasAll(const Communities &route, const Required &required) {
    if (required.count > 0 && !required.values) return false;
    for (std::uint32_t i = 0; i < required.count; ++i)
        if (!route.has(required.values[i].value())) return false;
    for (std::size_t i = 0; i < 3; ++i)
        if (required.wellKnown[i] && !route.has(wellKnownValues[i])) return false;
    return true;
}

bool isRequired(const Required &required, std::uint32_t value) {
    for (std::size_t i = 0; i < 3; ++i)
        if (required.wellKnown[i] && wellKnownValues[i] == value) return true;
    for (std::uint32_t i = 0; i < required.count; ++i)
        if (required.values[i].value() == value) return true;
    return false;
}

bool hasNoOther(const Communities &route, const Required &required) {
    for (std::size_t i = 0; i < route.count(); ++i)
        if (!isRequired(required, route[i])) return false;
    return true;
}

bool matches(const Bytes &image, const CommEntry &entry, Communities &route, bool exactly) {
    if (entry.kind == CommEntry::expanded) {
        zelRegex *expression = expressionAt(entry.expression);
        return expression && route.matches(*expression);
    }
    const Required required = requiredBy(image, entry);
    return hasAll(route, required) && (!exactly || hasNoOther(route, required));
}

const CommEntry *firstMatch(const zelCommList *list, const std::uint32_t *values, int valueCount, bool exactly,
                            std::uint32_t &count) {
    const Bytes image = imageOf(list, Kind::community);
    const auto *entries = entriesOf<CommEntry>(image, count);
    Communities route(values, values && valueCount > 0 ? static_cast<std::size_t>(valueCount) : 0);
    for (const CommEntry *entry = entries; entry < entries + count; ++entry)
        if (matches(image, *entry, route, exactly)) return entry;
    return nullptr;
}

int checkCommunities(const zelCommList *list, const std::uint32_t *values, int valueCount, bool exactly) {
    std::uint32_t count = 0;
    const CommEntry *entry = firstMatch(list, values, valueCount, exactly, count);
    return count == 0 ? permit : entry ? entry->action : deny;
}

std::uint32_t checkNamed(const char *name, const std::uint32_t *values, int count, bool exactly) {
    const zelCommList *list = bgpCommListFind(name);
    return list ? static_cast<std::uint32_t>(checkCommunities(list, values, count, exactly)) : noSuchList;
}

template <class List>
List *find(Kind kind, const char *name) {
    Root *tables = root();
    return tables ? static_cast<List *>(findList(tables->aclNode, kind, name)) : nullptr;
}

}  // namespace
}  // namespace zel::policy

using namespace zel::policy;

zelAspList *bgpAspListFind(const char *name) {
    return find<zelAspList>(Kind::asPath, name);
}

int bgpAccessASPMatch(const zelAspList *list, const void *pathAttribute, int length) {
    if (!list || !pathAttribute || length <= 0) return permit;
    Subject path(pathAttribute, static_cast<size_t>(length), asPathType, true);
    return checkPath(list, path);
}

int bgp_as_path_match(const zelAspList *list, const char *pathText, const void *) {
    if (!list || !pathText) return permit;
    Subject path(pathText);
    return checkPath(list, path);
}

uint32_t bgpAspListTextEntry(const zelAspList *list, const char *pathText) {
    if (!pathText) return 0;
    Subject path(pathText);
    return entryOf(list, path);
}

uint32_t bgpAspListEntry(const zelAspList *list, const void *pathAttribute, int length) {
    if (!pathAttribute || length <= 0) return 0;
    Subject path(pathAttribute, static_cast<size_t>(length), asPathType, true);
    return entryOf(list, path);
}

uint32_t bgpCommListEntry(const zelCommList *list, const uint32_t *communities, int count) {
    uint32_t entries = 0;
    const CommEntry *entry = firstMatch(list, communities, count, false, entries);
    return entry ? entry->sequence : 0;
}

zelCommList *bgpCommListFind(const char *name) {
    return find<zelCommList>(Kind::community, name);
}

int bgpAccessCommMatch(const zelCommList *list, const uint32_t *communities, int count) {
    return checkCommunities(list, communities, count, false);
}

int bgpAccessCommMatchExact(const zelCommList *list, const uint32_t *communities, int count) {
    return checkCommunities(list, communities, count, true);
}

uint32_t bgp_commlist_match(const char *name, const uint32_t *communities, int count) {
    return checkNamed(name, communities, count, false);
}

uint32_t bgp_comm_match_exact(const char *name, const uint32_t *communities, int count) {
    return checkNamed(name, communities, count, true);
}
