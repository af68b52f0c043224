// AS-path lists and community lists: the calls, and their images.
//
// Expressions are compiled, and referred to, before anything changes: a list with a pattern that does not compile is
// refused whole.
#include "aclmgr/attribute_lists.h"

#include <cstring>

#include "zel/platform.h"

namespace zel::aclmgr {
namespace {

using policy::AspEntry;
using policy::CommEntry;
using policy::Community;

constexpr std::uint32_t codeNoExpression = 0x39000014;

// The expression at a link of an image, null when that is not to be believed. Its pattern ends where it says.
zelRegex *expressionAt(Link link) {
    const auto *expression = at<zelRegex>(link);
    if (!expression || expression->magic != zelRegex::validMagic || expression->length > policy::longestPattern)
        return nullptr;
    const auto *whole = at<zelRegex>(link, sizeof(zelRegex) + expression->length + 1);
    return whole && whole->pattern[whole->length] == 0 ? const_cast<zelRegex *>(whole) : nullptr;
}

// Visits the links to expressions that an image has, also those that lead nowhere; false when its entries are not all
// in it.
template <class Visit>
bool forEachLink(const Bytes &image, const Visit &visit) {
    std::uint32_t count = 0;
    if (image.header()->kind == Kind::asPath) {
        const auto *entries = policy::entriesOf<AspEntry>(image, count);
        for (std::uint32_t i = 0; i < count; ++i) visit(entries[i].expression);
    } else {
        const auto *entries = policy::entriesOf<CommEntry>(image, count);
        for (std::uint32_t i = 0; i < count; ++i)
            if (entries[i].kind == CommEntry::expanded) visit(entries[i].expression);
    }
    return count == image.header()->entries;
}

bool hasWholeLinks(const Bytes &image) {
    bool areWhole = true;
    const bool isWhole = forEachLink(image, [&](Link link) { areWhole = areWhole && expressionAt(link); });
    return isWhole && areWhole;
}

void dropLinks(const Bytes &image) {
    forEachLink(image, [](Link link) {
        zelRegex *expression = expressionAt(link);
        if (!expression) return;
        expression->listReferences.fetch_sub(1);
        zelbgp_regex_collect(expression);
    });
}

// ---- AS-path lists --------------------------------------------------------------------------------------------------

std::unique_ptr<Draft> readAsp(const Bytes &image) {
    auto draft = std::make_unique<AspDraft>();
    std::uint32_t count = 0;
    const auto *entries = policy::entriesOf<AspEntry>(image, count);
    for (std::uint32_t i = 0; i < count; ++i)
        if (const zelRegex *expression = expressionAt(entries[i].expression))
            draft->items.push_back({entries[i].sequence, entries[i].action, expression->pattern});
    return draft;
}

// ---- Community lists ------------------------------------------------------------------------------------------------

bool isGood(const zelAclCommEntry &entry) {
    if (entry.kind == CommEntry::expanded) return entry.pattern && entry.count == 0;
    return entry.kind == CommEntry::standard && (entry.count == 0 || entry.values);
}

CommItem itemOf(const zelAclCommEntry &entry) {
    CommItem item{entry.sequence,         entry.action,        entry.kind, entry.localAs != 0,
                  entry.noAdvertise != 0, entry.noExport != 0, {},         entry.pattern};
    item.values.assign(entry.values, entry.values + entry.count);
    return item;
}

CommItem itemOf(const CommEntry &entry, const Bytes &image, const zelRegex *expression) {
    CommItem item{entry.sequence,         entry.action,        entry.kind, entry.localAs != 0,
                  entry.noAdvertise != 0, entry.noExport != 0, {},         expression ? expression->pattern : nullptr};
    const std::uint32_t count = policy::readOnce(entry.count);
    const auto *values = policy::inside<Community>(image, entry.values, count);
    for (std::uint32_t i = 0; values && i < count; ++i) item.values.push_back(values[i].value());
    return item;
}

std::unique_ptr<Draft> readComm(const Bytes &image) {
    auto draft = std::make_unique<CommDraft>();
    std::uint32_t count = 0;
    const auto *entries = policy::entriesOf<CommEntry>(image, count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const CommEntry &entry = entries[i];
        const zelRegex *expression = entry.kind == CommEntry::expanded ? expressionAt(entry.expression) : nullptr;
        if (entry.kind == CommEntry::expanded && !expression) continue;
        draft->items.push_back(itemOf(entry, image, expression));
    }
    return draft;
}

bool isWholeComm(const Bytes &image) {
    std::uint32_t count = 0;
    const auto *entries = policy::entriesOf<CommEntry>(image, count);
    for (std::uint32_t i = 0; i < count; ++i)
        if (entries[i].count != 0 && !policy::inside<Community>(image, entries[i].values, entries[i].count))
            return false;
    return hasWholeLinks(image);
}

// What a caller reads back; the values stand in the image.
zelAclCommEntry entryOf(const CommItem &item) {
    return {item.sequence,
            item.action,
            item.kind,
            item.localAs,
            item.noAdvertise,
            item.noExport,
            static_cast<std::uint32_t>(item.values.size()),
            nullptr,
            item.pattern};
}

// ---- Expressions ----------------------------------------------------------------------------------------------------

constexpr std::uint32_t mostExpressions = 2 * policy::mostExpressions;

// How often lists refer to each expression there is.
struct Count {
    zelRegex *expression;
    std::uint32_t references = 0;
};

std::vector<Count> countReferences(policy::Root &root, const std::vector<Bytes> &images) {
    std::vector<Count> counts;
    Link link = root.expressions.live.load();
    for (zelRegex *expression = expressionAt(link); expression && counts.size() < mostExpressions;
         expression = expressionAt(expression->next.load()))
        counts.push_back({expression});
    std::sort(counts.begin(), counts.end(), [](const Count &a, const Count &b) { return a.expression < b.expression; });
    for (const Bytes &image : images) {
        if (image.header()->kind != Kind::asPath && image.header()->kind != Kind::community) continue;
        forEachLink(image, [&](Link to) {
            const zelRegex *expression = expressionAt(to);
            const auto found = std::lower_bound(counts.begin(), counts.end(), expression,
                                                [](const Count &a, const zelRegex *b) { return a.expression < b; });
            if (found != counts.end() && found->expression == expression) ++found->references;
        });
    }
    return counts;
}

std::vector<const void *> blocksOf(const std::vector<Count> &counts) {
    std::vector<const void *> blocks;
    for (const Count &count : counts) blocks.push_back(count.expression);
    return blocks;
}

template <class DraftType, class Entry>
std::uint32_t setList(const zelAclMgr *manager, zelAclMgrKind kind, const char *name, const Entry *entries,
                      std::uint32_t count, std::uint32_t (*add)(DraftType &, const Entry &)) {
    return changing(manager, entries || count == 0, rowOf(kind)->noMemory, [&](const zelAclMgr &given) {
        DraftType draft;
        for (std::uint32_t i = 0; i < count; ++i)
            if (const std::uint32_t code = add(draft, entries[i])) return code;
        Change change(given);
        return change.set(kind, name, draft);
    });
}

template <class DraftType, class Entry>
std::uint32_t addEntry(const zelAclMgr *manager, zelAclMgrKind kind, const char *name, const Entry *entry,
                       std::uint32_t (*add)(DraftType &, const Entry &)) {
    return changing(manager, entry, rowOf(kind)->noMemory, [&](const zelAclMgr &given) {
        Change change(given);
        const ListNode *list = change.find(kind, name);
        const auto draft = rowOf(kind)->operations->read(list ? imageOf(*list) : Bytes{});
        auto &typed = static_cast<DraftType &>(*draft);
        if (const std::uint32_t code = add(typed, *entry)) return code;
        return change.set(kind, name, typed);
    });
}

std::uint32_t addAsp(AspDraft &draft, const zelAclAspEntry &entry) {
    return entry.pattern ? draft.add(entry) : codeNoExpression;
}

std::uint32_t addComm(CommDraft &draft, const zelAclCommEntry &entry) {
    return isGood(entry) ? draft.add(itemOf(entry)) : codeValueRange;
}

}  // namespace

bool HeldExpressions::take(const char *pattern) {
    zelRegex *&expression = held_.emplace_back();  // first, since there may be no room
    expression = zelbgp_regex_for_list(pattern);
    if (expression) return true;
    held_.pop_back();
    return false;
}

Link HeldExpressions::give() {
    zelRegex *expression = held_[given_++];
    expression->listReferences.fetch_add(1);
    return policy::linkTo(expression);
}

void HeldExpressions::release() {
    for (; given_ < held_.size(); ++given_) zelbgp_regex_collect(held_[given_]);
    held_.clear();
    given_ = 0;
}

std::uint32_t AspDraft::prepare() const {
    for (const zelAclAspEntry &entry : items)
        if (!expressions_.take(entry.pattern)) return codeNoExpression;
    return 0;
}

std::size_t AspDraft::bytes() const {
    return sizeof(Image) + items.size() * sizeof(AspEntry);
}

void AspDraft::write(Image *image) const {
    auto *entry = reinterpret_cast<AspEntry *>(image + 1);
    for (const zelAclAspEntry &item : items) *entry++ = {item.sequence, expressions_.give(), item.action};
}

std::uint32_t CommDraft::prepare() const {
    for (const CommItem &item : items)
        if (item.kind == CommEntry::expanded && !expressions_.take(item.pattern)) return codeNoExpression;
    return 0;
}

std::size_t CommDraft::bytes() const {
    std::size_t bytes = sizeof(Image) + items.size() * sizeof(CommEntry);
    for (const CommItem &item : items) bytes += item.values.size() * sizeof(Community);
    return bytes;
}

void CommDraft::write(Image *image) const {
    auto *entry = reinterpret_cast<CommEntry *>(image + 1);
    auto *value = reinterpret_cast<Community *>(entry + items.size());
    const auto distance = [image](const void *at) {
        return static_cast<std::uint32_t>(static_cast<const std::uint8_t *>(at) -
                                          reinterpret_cast<const std::uint8_t *>(image));
    };
    for (const CommItem &item : items) {
        *entry++ = {item.sequence,
                    item.action,
                    item.kind,
                    item.localAs,
                    item.noAdvertise,
                    item.noExport,
                    static_cast<std::uint32_t>(item.values.size()),
                    distance(value),
                    item.kind == CommEntry::expanded ? expressions_.give() : 0};
        for (const std::uint32_t number : item.values)
            *value++ = {static_cast<std::uint16_t>(number >> 16), static_cast<std::uint16_t>(number)};
    }
}

void repairExpressions(policy::Root &root, const std::vector<Bytes> &images) {
    for (const Count &count : countReferences(root, images)) {
        count.expression->listReferences.store(count.references);
        zelbgp_regex_collect(count.expression);
    }
    zelPolicyHeapReport report{};
    const auto blocks = blocksOf(countReferences(root, images));
    zelPolicyHeapSweep(policy::expressionSource, blocks.data(), blocks.size(), 1, &report);
}

void auditExpressions(policy::Root &root, const std::vector<Bytes> &images, zelAclMgrAuditReport &report) {
    const auto counts = countReferences(root, images);
    for (const Count &count : counts) {
        const bool isKept = zelbgp_regex_references(count.expression) + count.expression->waitsForDeletion.load() != 0;
        if (!isKept || count.expression->listReferences.load() != count.references) ++report.wrongReferences;
    }
    report.expressions = static_cast<std::uint32_t>(counts.size());
    zelPolicyHeapReport heap{};
    const auto blocks = blocksOf(counts);
    zelPolicyHeapSweep(policy::expressionSource, blocks.data(), blocks.size(), 0, &heap);
    report.blocks += heap.blocks;
    report.bytes += heap.bytes;
    report.lostBlocks += heap.lostBlocks;
    report.lostBytes += heap.lostBytes;
}

constinit const ListOperations aspOperations{readAsp, hasWholeLinks, dropLinks, AspDraft::lastSequence};
constinit const ListOperations commOperations{readComm, isWholeComm, dropLinks, CommDraft::lastSequence};

}  // namespace zel::aclmgr

using namespace zel::aclmgr;

uint32_t zelAclMgrSetAspList(zelAclMgr *manager, const char *name, const zelAclAspEntry *entries, uint32_t count) {
    return setList<AspDraft>(manager, ZEL_ACLMGR_ASPATH, name, entries, count, addAsp);
}

uint32_t zelAclMgrAddAspEntry(zelAclMgr *manager, const char *name, const zelAclAspEntry *entry) {
    return addEntry<AspDraft>(manager, ZEL_ACLMGR_ASPATH, name, entry, addAsp);
}

int zelAclMgrGetAspEntries(zelAclMgr *manager, const char *name, zelAclAspEntry *entries, int capacity) {
    return reading(manager, entries || capacity <= 0, [&](const zelAclMgr &given) {
        const Reading look(given);
        const ListNode *list = look.find(ZEL_ACLMGR_ASPATH, name);
        if (!list) return -1;
        const auto draft = readAsp(imageOf(*list));
        const auto &items = static_cast<AspDraft &>(*draft).items;
        for (int i = 0; i < capacity && i < static_cast<int>(items.size()); ++i)
            entries[i] = items[static_cast<size_t>(i)];
        return static_cast<int>(items.size());
    });
}

uint32_t zelAclMgrSetCommList(zelAclMgr *manager, const char *name, const zelAclCommEntry *entries, uint32_t count) {
    return setList<CommDraft>(manager, ZEL_ACLMGR_COMMUNITY, name, entries, count, addComm);
}

uint32_t zelAclMgrAddCommEntry(zelAclMgr *manager, const char *name, const zelAclCommEntry *entry) {
    return addEntry<CommDraft>(manager, ZEL_ACLMGR_COMMUNITY, name, entry, addComm);
}

int zelAclMgrGetCommEntries(zelAclMgr *manager, const char *name, zelAclCommEntry *entries, int capacity,
                            uint32_t *values, uint32_t valueCapacity) {
    const bool isComplete = (entries || capacity <= 0) && (values || valueCapacity == 0);
    return reading(manager, isComplete, [&](const zelAclMgr &given) {
        const Reading look(given);
        const ListNode *list = look.find(ZEL_ACLMGR_COMMUNITY, name);
        if (!list) return -1;
        const auto draft = readComm(imageOf(*list));
        const auto &items = static_cast<CommDraft &>(*draft).items;
        uint32_t used = 0;
        for (int i = 0; i < capacity && i < static_cast<int>(items.size()); ++i) {
            const CommItem &item = items[static_cast<size_t>(i)];
            entries[i] = entryOf(item);
            if (item.values.size() > valueCapacity - used) continue;
            entries[i].values = values + used;
            for (const uint32_t value : item.values) values[used++] = value;
        }
        return static_cast<int>(items.size());
    });
}
