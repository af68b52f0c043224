// Expressions: made, shared, matched and given up.
//
// An expression that nobody refers to any more is deleted at once when no process caches results; otherwise it waits,
// still found by its pattern, until whoever cleans up finds that no process holds results of it. A process gives up its
// own when it cleans up itself.
#include <cstdio>
#include <cstring>

#include "platform/cancellation.h"
#include "policy/attribute_text.h"
#include "policy/compiled.h"
#include "policy/expression.h"
#include "policy/matcher.h"
#include "policy/pattern.h"
#include "policy/result_cache.h"
#include "policy/tree_reader.h"
#include "zel/platform.h"
#include "zel/policy.h"

using namespace zel::policy;

std::uint32_t aclRegexOptzInitialized = 0;
std::uint32_t aclRegexOptzEnabled = 1;
std::uint32_t aclRegexOptzDebug = 0;
std::uint32_t aclRegexOptzClientId = 0;
std::uint32_t aclRegexPendingDelete = 0;

namespace zel::policy {
namespace {

constexpr const char *source = expressionSource;
constexpr int noMatch = 1;

std::uint32_t verifies = 0;

// ---- The records ----------------------------------------------------------------------------------------------------

constexpr std::uint32_t mostLinks = 2 * mostExpressions;  // a longer list has a loop

zelRegex *nextOf(const zelRegex &expression) {
    return expressionAt(expression.next.load(std::memory_order_acquire));
}

template <class Visit>
void forEachExpression(Root &tables, Visit visit) {
    std::uint32_t seen = 0;
    zelRegex *expression = expressionAt(tables.expressions.live.load(std::memory_order_acquire));
    while (expression && seen++ < mostLinks) {
        zelRegex *next = nextOf(*expression);
        visit(*expression);
        expression = next;
    }
}

zelRegex *findExpression(Root &tables, const char *pattern, std::size_t length) {
    zelRegex *found = nullptr;
    forEachExpression(tables, [&](zelRegex &expression) {
        if (expression.length == length && memcmp(expression.pattern, pattern, length) == 0) found = &expression;
    });
    return found;
}

// A slot that no expression has; all ones when there is none.
std::uint32_t freeSlot(Root &tables) {
    std::uint64_t taken[mostExpressions / 64] = {};
    forEachExpression(tables, [&](zelRegex &expression) {
        const std::uint32_t slot = readOnce(expression.slot) % mostExpressions;
        taken[slot / 64] |= 1ull << slot % 64;
    });
    for (std::uint32_t i = 0; i < mostExpressions / 64; ++i)
        if (~taken[i]) return i * 64 + static_cast<std::uint32_t>(__builtin_ctzll(~taken[i]));
    return ~0u;
}

zelRegex *makeExpression(Root &tables, const char *pattern, std::size_t length) {
    const std::uint32_t slot = freeSlot(tables);
    if (slot == ~0u) return nullptr;
    auto *expression = static_cast<zelRegex *>(zelMC_MM_calloc(source, __LINE__, 1, sizeof(zelRegex) + length + 1));
    if (!expression) return nullptr;
    expression->number = tables.expressions.lastNumber.fetch_add(1) + 1;
    expression->slot = slot;
    expression->length = static_cast<std::uint32_t>(length);
    memcpy(expression->pattern, pattern, length);
    expression->magic = zelRegex::validMagic;
    expression->next.store(tables.expressions.live.load());
    return expression;
}

bool isReferred(const zelRegex &expression) {
    return (expression.references.load() | expression.listReferences.load()) != 0;
}

void removeExpression(Root &tables, zelRegex &expression) {
    std::atomic<Link> *link = &tables.expressions.live;
    for (std::uint32_t seen = 0; seen < mostLinks; ++seen) {
        zelRegex *there = expressionAt(link->load());
        if (!there) return;
        if (there != &expression) {
            link = &there->next;
            continue;
        }
        link->store(expression.next.load(), std::memory_order_release);
        expression.magic = 0;
        return zelMC_MM_free(source, __LINE__, &expression);
    }
}

// ---- Texts ----------------------------------------------------------------------------------------------------------

zelAttributeTextFn textHook = nullptr;
zelFreeFn textFree = nullptr;

bool isKnownType(std::uint32_t type) {
    return type == asPathType || type == communitiesType || type == otherType;
}

// ---- The cache ------------------------------------------------------------------------------------------------------

// The switches may change while others match.
void writeOnce(std::uint32_t &flag, bool isSet) {
    __atomic_store_n(&flag, isSet, __ATOMIC_RELEASE);
}

bool isCacheOn() {
    return readOnce(aclRegexOptzInitialized) && readOnce(aclRegexOptzEnabled);
}

// Where this process keeps the results of an expression, taking an index for it when it has none.
std::uint32_t cachedIndexOf(zelRegex &expression) {
    if (!(expression.clients.load() & aclRegexOptzClientId)) expression.clients.fetch_or(aclRegexOptzClientId);
    return resultCache.indexOf(expression.number, expression.cachedIndex[clientIndex(aclRegexOptzClientId)]);
}

bool insertResult(zelRegex &expression, std::uint32_t node, std::uint32_t index, int result,
                  const ResultCache::Known *opened) {
    const bool isDone = resultCache.insert(node, index, expression.number, result == 0, opened);
    if (readOnce(aclRegexOptzDebug))
        printf(isDone ? "Inserted, (dataNode 0x%0X, RegexIndex %d) ==> 0x%0X\r\n"
                      : "Insertion Failed, (dataNode 0x%0X, RegexIndex %d) ==> 0x%0X\r\n",
               node, static_cast<int>(index), static_cast<unsigned>(result));
    return isDone;
}

// This process has no results of the expression any more.
void forgetResults(zelRegex &expression) {
    if (aclRegexOptzClientId == 0) return;
    resultCache.forget(expression.cachedIndex[clientIndex(aclRegexOptzClientId)].exchange(0), expression.number);
    expression.clients.fetch_and(~aclRegexOptzClientId);
}

// The bits of processes that died with results, which are free then.
std::uint32_t takeDeadClients(ExpressionRoots &roots) {
    std::uint32_t dead = 0;
    for (std::uint32_t i = 0; i < std::size(roots.owners); ++i) {
        platform::ProcessId &owner = roots.owners[i];
        if (owner == platform::ProcessId{} || platform::isAlive(owner)) continue;
        owner = {};
        dead |= 1u << i;
    }
    roots.clients.fetch_and(~dead);
    return dead;
}

void deleteWaiting(Root &tables) {
    const std::uint32_t dead = takeDeadClients(tables.expressions);
    forEachExpression(tables, [&](zelRegex &expression) {
        expression.clients.fetch_and(~dead);
        if (!expression.waitsForDeletion.load()) return;
        forgetResults(expression);
        if (expression.clients.load() == 0) removeExpression(tables, expression);
    });
}

class WriteLock {
public:
    WriteLock() : isHeld_(ZEL_ShmWriteLock(ZEL_SHM_LOCK_POLICY) == 0) {}
    ~WriteLock() {
        if (isHeld_) ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY);
    }
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;
    explicit operator bool() const { return isHeld_; }
    void keep() { isHeld_ = false; }

private:
    const platform::NoCancellation guard_;
    bool isHeld_;
};

}  // namespace

// ---- Subjects -------------------------------------------------------------------------------------------------------

Subject::Subject(const void *attribute, std::size_t length, std::uint32_t type, bool isCached, const char *text)
    : attribute_(attribute), length_(length), type_(type), text_(text) {
    if (!attribute || !isCached || !isCacheOn()) return;
    cacheNode_ = resultCache.open(type, attribute, length, known_);
    client_ = clientIndex(aclRegexOptzClientId);
    isVerified_ = readOnce(verifies) != 0;
}

Subject::~Subject() {
    if (hasNews_) resultCache.insertAll(cacheNode_, known_);
    if (made_ == own_ || !made_) return;
    if (madeByHook_)
        textFree(made_);
    else
        zelMC_free(source, __LINE__, made_);
}

// An attribute that makes no text has the empty one.
const char *Subject::text() {
    if (textLength_ != unmeasured) return text_;
    if (text_) {
        textLength_ = strlen(text_);
        return text_;
    }
    if (textHook) {
        made_ = textHook(attribute_, length_, type_);
        madeByHook_ = made_ != nullptr;
    } else {
        makeText();
    }
    text_ = made_ ? made_ : "";
    textLength_ = strlen(text_);
    return text_;
}

void Subject::makeText() {
    const std::size_t room = roomForText(length_);
    made_ = room <= sizeof own_ ? own_ : static_cast<char *>(zelMC_malloc(source, __LINE__, room));
    if (!made_) return;
    const auto *bytes = static_cast<const std::uint8_t *>(attribute_);
    std::size_t written = 0;
    if (type_ == asPathType) written = writeAsPath(bytes, length_, made_, room);
    if (type_ == communitiesType) written = writeCommunities(bytes, length_, made_, room);
    made_[written < room ? written : room - 1] = 0;
}

bool Subject::matchesNow(zelRegex &expression) {
    const char *subject = text();  // first, for a text hook may match, too
    const bool result = CompiledUse(expression).matches(subject, textLength_);
    bool known;
    if (isVerified_ && isKnown(expression, known) && known != result)
        printf("Cached result of %.*s differs\r\n", static_cast<int>(longestPattern), expression.pattern);
    if (cacheNode_ != 0) keep(expression, result);
    return result;
}

// Results go to the cache together, when the subject is done with; one by one if they are to be traced, or have to get
// an index first.
void Subject::keep(zelRegex &expression, bool result) {
    if (!readOnce(aclRegexOptzDebug) && resultCache.learn(known_, indexOf(expression), expression.number, result))
        hasNews_ = true;
    else
        insertResult(expression, cacheNode_, cachedIndexOf(expression), result ? 0 : noMatch, &known_);
}

}  // namespace zel::policy

// ---- Expressions ----------------------------------------------------------------------------------------------------

zelRegex *zelbgp_regex_for_list(const char *pattern) {
    const zel::platform::NoCancellation guard;
    Root *tables = root();
    if (!pattern || !tables) return nullptr;
    const std::size_t length = strnlen(pattern, longestPattern + 1);
    if (zelRegex *shared = findExpression(*tables, pattern, length)) {
        shared->waitsForDeletion.store(0);
        return shared;
    }
    if (length > longestPattern) return nullptr;
    zelRegex *expression = makeExpression(*tables, pattern, length);
    if (!expression) return nullptr;
    if (!CompiledUse(*expression)) {
        zelMC_MM_free(source, __LINE__, expression);
        return nullptr;
    }
    tables->expressions.live.store(linkTo(expression), std::memory_order_release);
    return expression;
}

void zelbgp_regex_collect(zelRegex *expression) {
    const zel::platform::NoCancellation guard;
    Root *tables = root();
    if (!expression || !tables || !expressionAt(linkTo(expression)) || isReferred(*expression)) return;
    if (expression->clients.load() == 0 && tables->expressions.clients.load() == 0)
        removeExpression(*tables, *expression);
    else
        expression->waitsForDeletion.store(1);
}

zelRegex *zelbgp_regcomp(const char *pattern) {
    zelRegex *expression = zelbgp_regex_for_list(pattern);
    if (expression) expression->references.fetch_add(1);
    return expression;
}

void zelbgp_regex_free(zelRegex *expression) {
    if (!expression || !root() || !expressionAt(linkTo(expression)) || expression->references.load() == 0) return;
    expression->references.fetch_sub(1);
    zelbgp_regex_collect(expression);
}

int zelbgp_regexec(zelRegex *expression, const char *text, const void *attribute, int length, uint32_t type,
                   int useCache) {
    if (!expression) return -1;
    if (attribute && !isKnownType(type)) {
        if (readOnce(aclRegexOptzDebug)) printf("Error type patype %x", type);
        return 0;
    }
    if (!attribute && !text) return noMatch;
    Subject subject(attribute, length > 0 ? static_cast<std::size_t>(length) : 0, type, useCache != 0, text);
    return subject.matches(*expression) ? 0 : noMatch;
}

int aclPatternCheck(const char *pattern, char *error, size_t errorBytes) {
    if (!pattern || (!error && errorBytes != 0)) return -1;
    Matcher *matcher = Matcher::compile(pattern, error, errorBytes);
    Matcher::destroy(matcher);
    return matcher ? 0 : -1;
}

const char *zelbgp_regex_pattern(const zelRegex *expression) {
    return expression ? expression->pattern : nullptr;
}

uint32_t zelbgp_regex_references(const zelRegex *expression) {
    return expression ? expression->references.load() + expression->listReferences.load() : 0;
}

void aclRegexSetTextHook(zelAttributeTextFn make, zelFreeFn release) {
    textHook = make && release ? make : nullptr;
    textFree = release;
}

int aclAttributeText(uint32_t type, const void *attribute, size_t length, char *text, size_t size) {
    if (!attribute || !text || size == 0) return -1;
    const auto *bytes = static_cast<const uint8_t *>(attribute);
    size_t written = 0;
    if (type == asPathType)
        written = writeAsPath(bytes, length, text, size - 1);
    else if (type == communitiesType)
        written = writeCommunities(bytes, length, text, size - 1);
    else
        return -1;
    text[written < size ? written : size - 1] = 0;
    return static_cast<int>(written);
}

// ---- The cache ------------------------------------------------------------------------------------------------------

int aclRegexOptzInit(uint32_t clientBit, int join, uint32_t attributes, uint32_t expressions) {
    if (aclRegexOptzInitialized) return 0;
    if (clientBit == 0 || !resultCache.create(attributes, expressions)) return -1;
    aclRegexOptzClientId = clientBit;
    if (join) {
        WriteLock lock;
        Root *tables = lock ? root() : nullptr;
        if (!tables) {
            resultCache.destroy();
            aclRegexOptzClientId = 0;
            return -1;
        }
        // Results of a process that was this client before and died.
        forEachExpression(*tables, forgetResults);
        tables->expressions.owners[clientIndex(clientBit)] = zel::platform::thisProcess();
        tables->expressions.clients.fetch_or(clientBit);
        aclRegexPendingDelete = 1;
    }
    writeOnce(aclRegexOptzInitialized, 1);
    return 0;
}

void aclRegexOptzClose(void) {
    if (!aclRegexOptzInitialized) return;
    WriteLock lock;
    writeOnce(aclRegexOptzInitialized, 0);
    resultCache.destroy();
    if (Root *tables = root()) {
        forEachExpression(*tables, forgetResults);
        deleteWaiting(*tables);
        tables->expressions.owners[clientIndex(aclRegexOptzClientId)] = {};
        tables->expressions.clients.fetch_and(~aclRegexOptzClientId);
    }
    aclRegexPendingDelete = 0;
    aclRegexOptzClientId = 0;
}

int aclRegexOptzIsEnabled(void) {
    return aclRegexOptzEnabled != 0;
}

void aclRegexOptzToggle(void) {
    writeOnce(aclRegexOptzEnabled, !aclRegexOptzEnabled);
    printf("aclRegexOptzEnabled is now %s\r\n", aclRegexOptzEnabled ? "ENABLED" : "DISABLED");
}

void aclRegexOptzDebugToggle(void) {
    writeOnce(aclRegexOptzDebug, !aclRegexOptzDebug);
}

void aclRegexOptzVerifyFlagToggle(void) {
    writeOnce(verifies, !verifies);
}

int aclRegexOptzVerify(void) {
    return verifies != 0;
}

uint32_t aclRegexOptzCacheOpen(uint32_t type, const void *attribute, size_t length) {
    ResultCache::Known known;
    return attribute ? resultCache.openLocked(type, attribute, length, known) : 0;
}

int aclRegexOptzCacheInsert(zelRegex *expression, uint32_t node, uint32_t index, int result) {
    return expression && insertResult(*expression, node, index, result, nullptr) ? 0 : -1;
}

int aclRegexOptzCacheGet(uint32_t node, uint32_t index, int *result) {
    bool matched = false;
    if (!result || !resultCache.find(node, index, matched)) return -1;
    *result = matched ? 0 : noMatch;
    return 0;
}

void aclRegexOptzCacheDelete(zelRegex *expression) {
    if (expression && aclRegexOptzInitialized) forgetResults(*expression);
}

uint32_t aclRegexOptzCacheSizeGet(void) {
    return resultCache.attributes();
}

void aclRegexPeriodicCacheCleanup(void) {
    WriteLock lock;
    Root *tables = lock ? root() : nullptr;
    if (tables) deleteWaiting(*tables);
}

zelRegex *aclRegexOptzHandleComp(const char *pattern) {
    WriteLock lock;
    zelRegex *expression = lock ? zelbgp_regcomp(pattern) : nullptr;
    if (expression) lock.keep();
    return expression;
}

void aclRegexOptzHandleFree(zelRegex *expression) {
    if (expression && zelbgp_regex_references(expression) == 1) aclRegexOptzCacheDelete(expression);
    zelbgp_regex_free(expression);
    ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY);
}

int aclRegexOptzGetClientIndex(uint32_t clientBit) {
    return static_cast<int>(clientIndex(clientBit));
}
