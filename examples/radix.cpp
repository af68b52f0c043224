// Routes in a radix tree: the best match for an address, what else covers it, and a walk that follows the changes.
#include <arpa/inet.h>

#include <cstdio>

#include "zel/containers.h"

struct Route {
    zelRadixEntry entry;  // stands first
    uint8_t prefix[4];
    unsigned bits;
    const char *nextHop;
};

static Route *routeOf(zelRadixEntry *entry) {
    return reinterpret_cast<Route *>(entry);
}

static const char *text(zelRadixEntry *entry) {
    static char line[64];
    const Route *route = routeOf(entry);
    const uint8_t *p = route->prefix;
    snprintf(line, sizeof line, "%u.%u.%u.%u/%u via %s", p[0], p[1], p[2], p[3], route->bits, route->nextHop);
    return line;
}

static int showChange(zelRadixEntry *entry, void *) {
    printf("changed: %s%s\n", text(entry), entry->rtn->rtn_flags & ZEL_RADIX_DELETED ? ", withdrawn" : "");
    return 0;
}

static void lookUp(zelRadix *tree, const char *address) {
    uint8_t key[4];
    inet_pton(AF_INET, address, key);
    printf("%s:\n", address);
    for (zelRadixEntry *e = zelRadixGetBest(tree, key, 32); e; e = zelRadixGetNextBest(tree, e))
        printf("  %s\n", text(e));
}

int main() {
    static Route routes[] = {
        {{}, {0, 0, 0, 0}, 0, "192.0.2.1"},
        {{}, {10, 0, 0, 0}, 8, "192.0.2.2"},
        {{}, {10, 1, 0, 0}, 16, "192.0.2.3"},
    };
    zelRadix *tree = zelRadixCreate("routes", 32, nullptr, nullptr,
                                    [](zelRadixEntry *entry) { printf("let go: %s\n", text(entry)); });
    for (Route &route : routes) {
        route.entry.rth_addr = route.prefix;
        zelRadixInsert(tree, &route.entry, route.bits);
    }
    lookUp(tree, "10.1.2.3");
    lookUp(tree, "192.0.2.7");

    // From here on a removal only marks, until the walk has seen it.
    tree->rtt_versioning = 1;
    zelRadicalWalk *walk = zelRadicalWalkConstructor(tree);
    zelRadixRemove(tree, &routes[2].entry);
    lookUp(tree, "10.1.2.3");
    zelRadicalNextVersion(tree);
    zelRadicalWalkChangeList(walk, showChange, nullptr, 0);
    lookUp(tree, "10.1.2.3");

    zelRadicalWalkDestructor(walk);
    zelRadixPrint(tree, text);
    zelRadixDestroy(tree);
}
