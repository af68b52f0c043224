// A compiled expression has a lock in it that is held while it matches, so threads that share one take turns, and are
// slower together than one alone. Here every thread that matches has a copy to itself for that time: a few are kept,
// each compiled when it is first used; a thread comes back to the same one, and takes another when that is in use. When
// all are (16 threads at once, or suspended ones), it compiles one for this one match. So nobody ever waits.
//
// What a pattern means does not depend on the language that the program speaks: it is compiled and matched in the C
// locale, as bytes.
#include "policy/host_expression.h"

#include <locale.h>
#include <regex.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

#include "zel/platform.h"

namespace zel::policy {
namespace {

constexpr std::size_t lineBytes = 64;

class PlainLocale {
public:
    PlainLocale() {
        static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
        before_ = uselocale(plain);
    }
    ~PlainLocale() { uselocale(before_); }
    PlainLocale(const PlainLocale &) = delete;

private:
    locale_t before_;
};

// Threads are numbered as they come, so that each has a copy it prefers.
unsigned threadNumber() {
    static std::atomic<unsigned> threads;
    static thread_local unsigned number = 0;
    if (number == 0) number = threads.fetch_add(1, std::memory_order_relaxed) + 1;
    return number;
}

int compileInto(regex_t &expression, const char *text) {
    return regcomp(&expression, text, REG_EXTENDED | REG_NOSUB);
}

bool holds(const regex_t &expression, const char *text, std::size_t length) {
    regmatch_t range{0, static_cast<regoff_t>(length)};
    return regexec(&expression, text, 1, &range, REG_STARTEND) == 0;
}

}  // namespace

struct HostExpression::Copy {
    std::atomic<bool> isTaken;
    bool isCompiled;
    regex_t expression;
    char apart[lineBytes];
};

bool HostExpression::compiles(const char *expanded, char *error, std::size_t errorBytes) {
    const PlainLocale plain;
    regex_t expression;
    const int result = compileInto(expression, expanded);
    if (result == 0)
        regfree(&expression);
    else
        regerror(result, &expression, error, errorBytes);
    return result == 0;
}

HostExpression *HostExpression::compile(const char *expanded, char *error, std::size_t errorBytes) {
    if (!compiles(expanded, error, errorBytes)) return nullptr;
    const std::size_t textBytes = strlen(expanded) + 1;
    void *memory =
        zelMC_calloc("host_expression", __LINE__, 1, sizeof(HostExpression) + copyCount * sizeof(Copy) + textBytes);
    if (!memory) {
        snprintf(error, errorBytes, "no memory");
        return nullptr;
    }
    auto *expression = new (memory) HostExpression;
    expression->copies_ = new (expression + 1) Copy[copyCount]{};
    expression->text_ = reinterpret_cast<char *>(expression->copies_ + copyCount);
    memcpy(expression->text_, expanded, textBytes);
    return expression;
}

void HostExpression::destroy(HostExpression *expression) {
    for (unsigned i = 0; expression && i < copyCount; ++i)
        if (expression->copies_[i].isCompiled) regfree(&expression->copies_[i].expression);
    zelMC_free("host_expression", __LINE__, expression);
}

bool HostExpression::matches(const char *text, std::size_t length) {
    const PlainLocale plain;
    const unsigned preferred = threadNumber();
    for (unsigned i = 0; i < copyCount; ++i) {
        Copy &copy = copies_[(preferred + i) % copyCount];
        if (copy.isTaken.exchange(true, std::memory_order_acquire)) continue;
        if (!copy.isCompiled) copy.isCompiled = compileInto(copy.expression, text_) == 0;
        const bool result = copy.isCompiled && holds(copy.expression, text, length);
        copy.isTaken.store(false, std::memory_order_release);
        return result;
    }
    regex_t own;
    if (compileInto(own, text_) != 0) return false;
    const bool result = holds(own, text, length);
    regfree(&own);
    return result;
}

}  // namespace zel::policy
