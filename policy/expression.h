// Expressions over attribute texts, shared by all lists and processes that use the same pattern.
//
// The record in the policy segment has the pattern, who refers to it, and what the processes that cache results need.
// The compiled form is private to each process, which finds it by the record's slot and number; see policy/compiled.h.
//
// Records are made, linked and unlinked under the write side of ZEL_SHM_LOCK_POLICY, each by one store. The lists'
// references are counted apart, so that whoever repairs the tables behind a writer that was killed can count them
// again; one that a list is about to have is no reference yet, since nobody else deletes while the lock is held.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>

#include "policy/pattern.h"
#include "policy/result_cache.h"
#include "policy/tables.h"

struct zelRegex {
    static constexpr std::uint32_t validMagic = 0x7a726578;
    std::uint32_t magic;
    std::uint32_t number;
    std::uint32_t slot;
    std::atomic<std::uint32_t> references;        // of those who compiled it
    std::atomic<std::uint32_t> listReferences;    // of lists
    std::atomic<std::uint32_t> waitsForDeletion;  // without references, but results of it may be cached
    std::atomic<std::uint32_t> clients;           // bits of the processes that hold results of it
    std::atomic<std::uint32_t> cachedIndex[32];   // by client: where its results stand in that process's cache
    std::atomic<zel::policy::Link> next;
    std::uint32_t length;  // of the pattern, as its author wrote it; a zero follows
    char pattern[];
};

namespace zel::policy {

inline constexpr std::uint32_t mostExpressions = 16384;
// The tag under which the policy heap keeps expressions.
inline constexpr char expressionSource[] = "zelbgp_regex";

// An expression that a list or another expression links to, null when that is not to be believed.
inline zelRegex *expressionAt(Link link) {
    const auto *expression = at<zelRegex>(link);
    if (!expression || expression->magic != zelRegex::validMagic || expression->slot >= mostExpressions) return nullptr;
    const std::uint32_t length = readOnce(expression->length);
    const bool isWhole = length <= longestPattern && at<zelRegex>(link, sizeof(zelRegex) + length + 1);
    return isWhole ? const_cast<zelRegex *>(expression) : nullptr;
}

// Where a process's results of an expression stand in its `cachedIndex`: by the highest of the client's bits.
constexpr std::uint32_t clientIndex(std::uint32_t clientBit) {
    return clientBit == 0 ? 0 : static_cast<std::uint32_t>(std::bit_width(clientBit)) - 1;
}

// The value of an attribute that expressions are matched with: a text, or an attribute from which the text is made when
// the first expression needs it. With the cache, what is known of the attribute is read once, at the beginning, and
// what was found out is written once, at the end.
class Subject {
public:
    explicit Subject(const char *text) : text_(text) {}
    Subject(const void *attribute, std::size_t length, std::uint32_t type, bool isCached, const char *text = nullptr);
    ~Subject();
    Subject(const Subject &) = delete;
    Subject &operator=(const Subject &) = delete;

    // Whether the expression matches; false for one that cannot be compiled here.
    bool matches(zelRegex &expression) {
        bool result;
        return isKnown(expression, result) && !isVerified_ ? result : matchesNow(expression);
    }

private:
    static constexpr std::size_t ownRoom = 2048, unmeasured = SIZE_MAX;

    bool isKnown(const zelRegex &expression, bool &result) const {
        return cacheNode_ != 0 && resultCache.isKnown(known_, indexOf(expression), expression.number, result);
    }
    std::uint32_t indexOf(const zelRegex &expression) const {
        return expression.cachedIndex[client_].load(std::memory_order_relaxed);
    }
    bool matchesNow(zelRegex &expression);
    const char *text();
    void makeText();
    void keep(zelRegex &expression, bool result);

    const void *attribute_ = nullptr;
    std::size_t length_ = 0;
    std::uint32_t type_ = 0;
    std::uint32_t cacheNode_ = 0;  // 0: results are not cached
    std::uint32_t client_ = 0;
    bool isVerified_ = false;
    const char *text_;
    std::size_t textLength_ = unmeasured;
    char *made_ = nullptr;
    bool madeByHook_ = false;
    bool hasNews_ = false;  // in `known_`
    ResultCache::Known known_;
    char own_[ownRoom];
};

}  // namespace zel::policy
