// What a free-index list is made of.
#pragma once

#include <cstdint>

#include "zel/containers.h"

// The list node stands first, so that a node of the list is a range.
struct zelFreeIndexRange {
    zelDLLNode node;
    uint32_t low;
    uint32_t high;
    zelFreeIndexRange *left;
    zelFreeIndexRange *right;
    int32_t height;
};
