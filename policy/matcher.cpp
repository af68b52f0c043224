// The C library decides what is an expression, and says what is wrong with one that is not. Then the automaton is
// built, if there can be one; only without it does the C library's own expression stay.
#include "policy/matcher.h"

#include <cstdio>

#include "policy/pattern_tree.h"
#include "zel/platform.h"

namespace zel::policy {

Matcher *Matcher::compile(const char *pattern, char *error, std::size_t errorBytes) {
    PatternTree *tree = PatternTree::read(pattern, error, errorBytes);
    if (!tree) return nullptr;
    auto *matcher = static_cast<Matcher *>(zelMC_calloc("matcher", __LINE__, 1, sizeof(Matcher)));
    if (!matcher) {
        snprintf(error, errorBytes, "no memory");
    } else if (HostExpression::compiles(tree->text(), error, errorBytes)) {
        matcher->automaton_ = Automaton::build(*tree);
        if (!matcher->automaton_) matcher->host_ = HostExpression::compile(tree->text(), error, errorBytes);
    }
    PatternTree::destroy(tree);
    if (matcher && (matcher->automaton_ || matcher->host_)) return matcher;
    destroy(matcher);
    return nullptr;
}

void Matcher::destroy(Matcher *matcher) {
    if (matcher) {
        Automaton::destroy(matcher->automaton_);
        HostExpression::destroy(matcher->host_);
    }
    zelMC_free("matcher", __LINE__, matcher);
}

}  // namespace zel::policy
