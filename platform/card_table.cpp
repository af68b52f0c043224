// The card table: what a platform says of its cards. Without one, every slot is empty and ports count from 1.
#include <stdio.h>

#include "zel/platform.h"

namespace {

constexpr uint32_t gigabitEthernet = 3;

uint32_t noCard(void *, int) {
    return 0;
}

uint32_t gigabitPort(void *, int, uint32_t) {
    return gigabitEthernet;
}

void decimalPort(void *, int, uint32_t port, char *text, size_t size) {
    snprintf(text, size, "%u", port + 1);
}

constexpr zelCardTable defaultTable = {nullptr, noCard, gigabitPort, decimalPort, 0};

zelCardTable tableInForce = defaultTable;

}  // namespace

void zelPlatformSetCardTable(const zelCardTable *table) {
    tableInForce = table ? *table : defaultTable;
    if (!tableInForce.cardType) tableInForce.cardType = noCard;
    if (!tableInForce.portType) tableInForce.portType = gigabitPort;
    if (!tableInForce.portText) tableInForce.portText = decimalPort;
}

const zelCardTable *zelPlatformCardTable(void) {
    return &tableInForce;
}
