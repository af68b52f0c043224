// The reporting check as a condition: reports a false one by its exact text and says so, for callers that then leave.
//
//     if (!asserted(tree, "rtt", "zelRadix")) return nullptr;
#pragma once

#include "zel/kernel.h"

namespace zel {

inline bool asserted(bool holds, const char *text, const char *file, int line = __builtin_LINE()) {
    if (holds) [[likely]]
        return true;
    _zelAssert(text, file, line);
    return false;
}

}  // namespace zel
