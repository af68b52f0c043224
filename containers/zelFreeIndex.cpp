// The free-index allocator: the free indexes as ascending ranges that never touch.
//
// The ranges stand in a list, which gives a range its neighbours, and the same records in a balanced tree by their low
// end, which finds the place of an index without a walk. Taking the lowest index of a range, or letting a range grow or
// shrink, moves its ends but never past a neighbour, so the tree changes only when a range comes or goes.
//
// Ends are never computed past the valid range: 0 and 0xffffffff are indexes like any other, and the number of all of
// them, 2^32, is kept as 0. What a call needs of memory it takes before it changes anything.
#include <cstdio>

#include "base/assertion.h"
#include "base/avl_tree.h"
#include "containers/free_index.h"
#include "zel/platform.h"

namespace {

constexpr char source[] = "zelFreeIndex";
using Range = zelFreeIndexRange;

struct links {
    using Node = Range;
    using Key = uint32_t;
    static Node *&left(Node *range) { return range->left; }
    static Node *&right(Node *range) { return range->right; }
    static int32_t &height(Node *range) { return range->height; }
    static int compare(Key low, Node *range) { return low < range->low ? -1 : low > range->low; }
};

TREE_DEFINE(Range, links)

bool isList(const zelFreeIndexList *list, int line = __builtin_LINE()) {
    return zel::asserted(list && list->free_ranges.dll_magic == zelDLL_MAGIC, "(head)->dll_magic == zelDLL_MAGIC",
                         source, line);
}

Range *asRange(zelDLLNode *node) {
    return reinterpret_cast<Range *>(node);
}

Range *makeRange(zelAllocFn allocate, uint32_t low, uint32_t high) {
    auto *range = static_cast<Range *>(allocate(sizeof(Range)));
    if (range) *range = {{}, low, high, nullptr, nullptr, 0};
    return range;
}

// Puts `range` before the one that follows it, null when none does.
void link(zelFreeIndexList *list, Range *range, Range *following) {
    if (following)
        zelDLLInsertBefore(&list->free_ranges, &following->node, &range->node);
    else
        zelDLLInsertAtBack(&list->free_ranges, &range->node);
    TREE_INSERT(Range, links)(list->free_root, range, range->low);
}

void drop(zelFreeIndexList *list, Range *range) {
    TREE_REMOVE(Range, links)(list->free_root, range->low);
    zelDLLRemove(&list->free_ranges, &range->node);
    list->free_release(range);
}

void takeLowest(zelFreeIndexList *list, Range *range) {
    if (range->low == range->high)
        drop(list, range);
    else
        ++range->low;
}

// False, and nothing changed, without memory.
bool split(zelFreeIndexList *list, Range *range, uint32_t index) {
    Range *lower = makeRange(list->free_alloc, range->low, index - 1);
    if (!lower) return false;
    range->low = index + 1;
    link(list, lower, range);
    return true;
}

// The two ranges between which an index stands: the last one that begins at or below it, and the first one above.
struct Neighbours {
    Range *below;
    Range *above;
    bool include(uint32_t index) const { return below && index <= below->high; }
};

Neighbours neighboursOf(zelFreeIndexList *list, uint32_t index) {
    zelDLL *ranges = &list->free_ranges;
    Range *above = TREE_FIND_GREATER(Range, links)(list->free_root, index);
    return {asRange(above ? zelDLLGetPrev(ranges, &above->node) : zelDLLGetLast(ranges)), above};
}

// Makes an index free that stands in no range: it joins the ranges it touches. False, and nothing changed, without
// memory for one of its own.
bool giveBack(zelFreeIndexList *list, uint32_t index, Neighbours ranges) {
    const bool touchesBelow = ranges.below && ranges.below->high == index - 1;
    const bool touchesAbove = ranges.above && ranges.above->low == index + 1;
    if (touchesBelow && touchesAbove) {
        ranges.below->high = ranges.above->high;
        drop(list, ranges.above);
    } else if (touchesBelow) {
        ranges.below->high = index;
    } else if (touchesAbove) {
        ranges.above->low = index;
    } else {
        Range *single = makeRange(list->free_alloc, index, index);
        if (!single) return false;
        link(list, single, ranges.above);
    }
    return true;
}

unsigned long shown(uint32_t index) {
    return index;
}

}  // namespace

int zelFreeIndexListInit(uint32_t minimum, uint32_t maximum, zelAllocFn allocFn, zelFreeFn freeFn,
                         zelFreeIndexList *list) {
    if (!allocFn || !freeFn || !list || maximum < minimum) return ZEL_ERROR;
    Range *whole = makeRange(allocFn, minimum, maximum);
    if (!whole) return ZEL_ERROR;
    *list = {{}, allocFn, freeFn, 0, maximum - minimum + 1, minimum, maximum, nullptr};
    zelDLLInit(&list->free_ranges);
    link(list, whole, nullptr);
    return ZEL_OK;
}

int zelFreeIndexGet(zelFreeIndexList *list, uint32_t *index) {
    if (!isList(list) || !zel::asserted(index, "index", source)) return ZEL_ERROR;
    Range *first = asRange(zelDLLGetFirst(&list->free_ranges));
    if (!first) return ZEL_ERROR;
    *index = first->low;
    takeLowest(list, first);
    ++list->free_used;
    return ZEL_OK;
}

int zelFreeIndexReserve(zelFreeIndexList *list, uint32_t index) {
    if (!isList(list)) return ZEL_ERROR;
    const Neighbours ranges = neighboursOf(list, index);
    if (!ranges.include(index)) return ZEL_ERROR;
    if (index == ranges.below->low)
        takeLowest(list, ranges.below);
    else if (index == ranges.below->high)
        --ranges.below->high;
    else if (!split(list, ranges.below, index))
        return ZEL_ERROR;
    ++list->free_used;
    return ZEL_OK;
}

int zelFreeIndexRelease(zelFreeIndexList *list, uint32_t index) {
    if (!isList(list)) return ZEL_ERROR;
    if (index < list->free_min || index > list->free_max) {
        printf("Trying to free Index 0x%lx which is not in range 0x%lx..0x%lx\r\n", shown(index), shown(list->free_min),
               shown(list->free_max));
        return ZEL_ERROR;
    }
    const Neighbours ranges = neighboursOf(list, index);
    if (ranges.include(index)) {
        printf("Trying to free Index 0x%lx which is not allocated\r\n", shown(index));
        return ZEL_ERROR;
    }
    if (!giveBack(list, index, ranges)) return ZEL_ERROR;
    --list->free_used;
    return ZEL_OK;
}

int zelFreeIndexListDestroy(zelFreeIndexList *list) {
    if (!isList(list)) return ZEL_ERROR;
    while (zelDLLNode *node = zelDLLGetFirst(&list->free_ranges)) {
        zelDLLRemove(&list->free_ranges, node);
        list->free_release(node);
    }
    list->free_root = nullptr;
    return ZEL_OK;
}

void zelFreeIndexDump(zelFreeIndexList *list) {
    if (!isList(list)) return;
    printf("Index Free List: (Valid range 0x%lx..0x%lx)\r\n", shown(list->free_min), shown(list->free_max));
    for (zelDLLNode *node = zelDLLGetFirst(&list->free_ranges); node; node = zelDLLGetNext(&list->free_ranges, node))
        printf("\t0x%lx..0x%lx\r\n", shown(asRange(node)->low), shown(asRange(node)->high));
    printf("Tot: %ld, Used: %ld\r\n", static_cast<long>(list->free_total), static_cast<long>(list->free_used));
}

void *zelFreeIndexMalloc(size_t bytes) {
    return zelMC_malloc(source, __LINE__, bytes);
}

void zelFreeIndexFree(void *range) {
    zelMC_free(source, __LINE__, range);
}
