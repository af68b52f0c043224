// Ports by their hardware address: each node is a zelAvlNode, the key behind it, and what the key leads to.
#include <cstdio>

#include "zel/containers.h"

struct Station {
    zelAvlNode node{};
    uint8_t address[6]{};  // the key
    uint8_t port = 0;
};

int main() {
    avlcb control{sizeof(Station::address), nullptr};
    zelAvlNode *root = nullptr;

    Station stations[] = {{{}, {2, 0, 0, 0, 0, 9}, 4}, {{}, {2, 0, 0, 0, 0, 1}, 7}, {{}, {2, 0, 0, 0, 0, 5}, 1}};
    for (auto &station : stations) zelAvlInsertNode(&control, &station.node, &root);

    Station again = stations[1];
    if (zelAvlInsertNode(&control, &again.node, &root) != &again.node) printf("an address is known only once\n");

    const uint8_t wanted[6] = {2, 0, 0, 0, 0, 5};
    if (zelAvlNode *found = zelAvlGetExact(&control, wanted, &root))
        printf("..:05 is behind port %d\n", reinterpret_cast<Station *>(found)->port);

    zelAvlRemoveNode(&control, &stations[2].node, &root);
    for (zelAvlNode *node = nullptr; (node = zelAvlGetNext(&control, node, &root)) != nullptr;)
        printf("..:%02x port %d\n", zelAvlKey(node)[5], reinterpret_cast<Station *>(node)->port);
}
