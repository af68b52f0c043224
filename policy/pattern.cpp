#include "policy/pattern.h"

#include <cstring>

#include "policy/pattern_tree.h"
#include "zel/platform.h"

namespace zel::policy {

char *expandUnderscores(const char *pattern) {
    constexpr std::size_t meaningLength = sizeof underscoreMeaning - 1;
    const std::size_t length = strnlen(pattern, longestPattern);
    auto *expanded = static_cast<char *>(zelMC_calloc("pattern", __LINE__, length * meaningLength + 1, 1));
    if (!expanded) return nullptr;
    char *end = expanded;
    for (std::size_t i = 0; i < length; ++i) {
        if (pattern[i] == '_')
            end = static_cast<char *>(mempcpy(end, underscoreMeaning, meaningLength));
        else
            *end++ = pattern[i];
    }
    return expanded;
}

bool checkPattern(const char *pattern, char *error, std::size_t errorBytes) {
    PatternTree *tree = PatternTree::read(pattern, error, errorBytes);
    PatternTree::destroy(tree);
    return tree != nullptr;
}

}  // namespace zel::policy
