// Routes in a red-black tree, ordered by their metric; the best ones are walked in pages of two.
#include <cstddef>
#include <cstdio>

#include "zel/containers.h"

struct Route {
    const char *via;
    uint32_t metric;
};

static int show(zelRBTree *, void *route, void *) {
    printf("  %u via %s\n", static_cast<Route *>(route)->metric, static_cast<Route *>(route)->via);
    return 0;
}

static const char *describe(void *route) {
    return static_cast<Route *>(route)->via;
}

int main() {
    Route routes[] = {{"core1", 30}, {"edge7", 10}, {"core2", 30}, {"lab", 99}, {"edge8", 20}};
    zelRBTree *tree = zelRBTreeCreate("routes", offsetof(Route, metric), 4, nullptr, nullptr, _RBTCompareUL);
    for (Route &route : routes) zelRBTreeInsert(tree, &route);
    zelRBTreePrint(tree, describe);

    const Route wanted = {nullptr, 25};
    auto *next = static_cast<Route *>(zelRBTreeGetExactOrNext(tree, &wanted));
    auto *previous = static_cast<Route *>(zelRBTreeGetExactOrPrev(tree, &wanted));
    printf("around 25: %u and %u\n", previous->metric, next->metric);

    puts("the best two:");
    void *last = zelRBTreeWalk(tree, nullptr, show, 2, 0, nullptr);
    puts("from the last of them on, three:");
    zelRBTreeWalk(tree, last, show, 3, 0, nullptr);

    while (void *route = zelRBTreeGetFirst(tree)) zelRBTreeRemove(tree, route);
    zelRBTreeDestroy(tree);
}
