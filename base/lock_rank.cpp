#include "base/lock_rank.h"

#ifndef NDEBUG

#include <cstdio>

#include "base/host_check.h"

namespace zel {
namespace {

constexpr int maxHeld = 16;
thread_local LockRank heldRanks[maxHeld];
thread_local int heldCount = 0;

}  // namespace

void noteLockTaken(LockRank rank, const char *name) {
    for (int i = 0; i < heldCount && i < maxHeld; ++i) {
        if (heldRanks[i] < rank) continue;
        char text[160];
        snprintf(text, sizeof text, "lock order: %s (rank %d) taken while rank %d is held", name,
                 static_cast<int>(rank), static_cast<int>(heldRanks[i]));
        hostCheck(false, text);
    }
    if (heldCount < maxHeld) heldRanks[heldCount] = rank;
    ++heldCount;
}

void checkNoRankHeld(bool isLeaf) {
    if (isLeaf || heldCount == 0) return;
    char text[100];
    snprintf(text, sizeof text, "lock order: shared lock taken while rank %d is held", static_cast<int>(heldRanks[0]));
    hostCheck(false, text);
}

void noteLockReleased(LockRank rank) {
    for (int i = heldCount - 1; i >= 0; --i) {
        if (i >= maxHeld || heldRanks[i] != rank) continue;
        for (int j = i; j + 1 < heldCount && j + 1 < maxHeld; ++j) heldRanks[j] = heldRanks[j + 1];
        break;
    }
    --heldCount;
}

}  // namespace zel

#endif
