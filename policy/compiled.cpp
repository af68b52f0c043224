// Marks are as the seldom side of an asymmetric fence has it: a thread writes its mark and looks whether the slot still
// has what it marked, and needs no fence between the two; whoever takes something out of its slot makes all threads
// pass one before it looks at the marks. On hosts that cannot do that, threads fence at every match.
#include "policy/compiled.h"

#include <pthread.h>

#include <atomic>
#include <cstring>

#include "base/lock.h"
#include "kernel/task.h"
#include "platform/cancellation.h"
#include "platform/process_fence.h"
#include "policy/expression.h"
#include "policy/matcher.h"
#include "zel/platform.h"

namespace zel::policy {

struct Compiled {
    std::uint32_t number;
    Matcher *matcher;  // null: does not compile
    Compiled *nextGone;
};

namespace {

constexpr const char *source = expressionSource;

// What a thread matches with. Marks are never freed: one whose thread ended becomes another's.
struct Mark {
    std::atomic<const Compiled *> used;
    std::atomic<bool> isTaken;
    Mark *next;
};

constinit std::atomic<Compiled *> compiled[mostExpressions]{};  // by slot
constinit std::atomic<Mark *> marks{nullptr};
constinit std::atomic<bool> needsFences{false};  // known before there is anything in a slot
constinit thread_local Mark *ownMark __attribute__((tls_model("initial-exec"))) = nullptr;
Mutex compileLock{LockRank::module, "&regex_compile_lock"};
Compiled *gone = nullptr;  // out of their slots, but marked when last looked at; under compileLock

// ---- Marks ----------------------------------------------------------------------------------------------------------

struct MarkKey {
    pthread_key_t key;
    bool isMade;
    MarkKey() : isMade(pthread_key_create(&key, leave) == 0) {}
    static void leave(void *mark) {
        ownMark = nullptr;
        static_cast<Mark *>(mark)->isTaken.store(false, std::memory_order_release);
    }
};

Mark *freeMark() {
    for (Mark *mark = marks.load(); mark; mark = mark->next)
        if (!mark->isTaken.load(std::memory_order_relaxed) && !mark->isTaken.exchange(true)) return mark;
    auto *mark = static_cast<Mark *>(zelMC_calloc(source, __LINE__, 1, sizeof(Mark)));
    if (!mark) return nullptr;
    mark->isTaken = true;
    mark->next = marks.load();
    while (!marks.compare_exchange_weak(mark->next, mark)) {
    }
    return mark;
}

// This thread's; null without memory.
Mark *markOfThread() {
    if (ownMark) return ownMark;
    static const MarkKey key;
    Mark *mark = key.isMade ? freeMark() : nullptr;
    if (mark && pthread_setspecific(key.key, mark) != 0) {
        mark->isTaken.store(false);
        return nullptr;
    }
    return ownMark = mark;
}

bool isMarked(const Compiled *entry) {
    for (const Mark *mark = marks.load(); mark; mark = mark->next)
        if (mark->used.load() == entry) return true;
    return false;
}

// ---- Slots ----------------------------------------------------------------------------------------------------------

void destroy(Compiled *entry) {
    Matcher::destroy(entry->matcher);
    zelMC_free(source, __LINE__, entry);
}

// Under compileLock: frees what is gone from its slot and marked no more.
void freeGone() {
    if (!needsFences.load(std::memory_order_relaxed)) platform::fenceAllThreads();
    for (Compiled **link = &gone; *link;) {
        Compiled *entry = *link;
        if (isMarked(entry)) {
            link = &entry->nextGone;
            continue;
        }
        *link = entry->nextGone;
        destroy(entry);
    }
}

// Under compileLock: puts a fresh entry in the place of what the slot has. Null without memory.
Compiled *replace(std::uint32_t slot, std::uint32_t number, const char *pattern) {
    auto *fresh = static_cast<Compiled *>(zelMC_calloc(source, __LINE__, 1, sizeof(Compiled)));
    if (!fresh) return nullptr;
    char error[100];
    *fresh = {number, Matcher::compile(pattern, error, sizeof error), nullptr};
    Compiled *old = compiled[slot].exchange(fresh);
    if (!old) return fresh;
    old->nextGone = gone;
    gone = old;
    freeGone();
    return fresh;
}

const Compiled *compileAndMark(Mark &mark, std::uint32_t slot, std::uint32_t number, const char *pattern) {
    const platform::NoCancellation guard;
    const kernel::KernelSection section;
    const Lock lock(compileLock);
    static const bool isFenced = platform::fenceAllThreads();
    needsFences.store(!isFenced);
    const Compiled *entry = compiled[slot].load(std::memory_order_acquire);
    mark.used.store(nullptr);
    if (!entry || entry->number != number) entry = replace(slot, number, pattern);
    mark.used.store(entry);
    return entry;
}

// What the slot has, marked; null when it has nothing, or changed meanwhile.
const Compiled *markSlot(Mark &mark, std::uint32_t slot) {
    const Compiled *entry = compiled[slot].load(std::memory_order_acquire);
    if (needsFences.load(std::memory_order_relaxed))
        mark.used.store(entry);
    else
        mark.used.store(entry, std::memory_order_release);  // what was used before is used no more
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return compiled[slot].load() == entry ? entry : nullptr;
}

const Compiled *use(const zelRegex &expression) {
    const std::uint32_t slot = readOnce(expression.slot), number = readOnce(expression.number);
    Mark *mark = slot < mostExpressions ? markOfThread() : nullptr;
    if (!mark) return nullptr;
    if (const Compiled *entry = markSlot(*mark, slot); entry && entry->number == number) return entry;
    char pattern[longestPattern + 1] = {};
    const std::uint32_t length = readOnce(expression.length);
    if (length > longestPattern) return nullptr;
    memcpy(pattern, expression.pattern, length);
    return compileAndMark(*mark, slot, number, pattern);
}

}  // namespace

CompiledUse::CompiledUse(const zelRegex &expression) : entry_(use(expression)) {}

CompiledUse::~CompiledUse() {
    if (ownMark) ownMark->used.store(nullptr, std::memory_order_release);
}

CompiledUse::operator bool() const {
    return entry_ && entry_->matcher;
}

bool CompiledUse::matches(const char *text, std::size_t length) const {
    return *this && entry_->matcher->matches(text, length);
}

}  // namespace zel::policy
