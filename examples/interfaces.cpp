// Interface indexes, their names, and a list of interfaces that travels as a few bytes.
#include <cstdio>

#include "zel/ifm.h"

int main() {
    const uint32_t port = ifmCreateIfIndex(IFM_TYPE_TEN_GIGABIT_ETHERNET, 2, 7, 0);
    char name[IFM_NAME_SIZE];
    printf("0x%08x is %s", port, ifmIfIndexToLName(port, name));
    printf(", in short %s\n", ifmIfIndexToName(port, name));

    ifmIfList members;
    IFM_IFLIST_INIT(&members);
    IFM_IFLIST_ADD(&members, port);
    IFM_IFLIST_ADD(&members, zelIfmLNameToIfIndex("Port-channel 12"));
    for (uint16_t vlan = 100; vlan < 200; ++vlan) IFM_IFLIST_ADD(&members, ifmCreateIfIndex(IFM_TYPE_VLAN, 0, 0, vlan));
    for (uint32_t at = 0, shown = 0; (at = IFM_IFLIST_NEXT(&members, at)) != 0 && shown < 4; ++shown)
        printf("member: %s\n", ifmIfIndexToName(at, name));

    uint32_t map[IFM_IFLIST_MAP_WORDS];
    uint8_t bytes[IFM_COMPRESSED_SIZE(IFM_IFLIST_POSITIONS)];
    ifmIfListToMap(&members, map);
    const int length = ifmBitmapCompress(map, IFM_IFLIST_POSITIONS, bytes, sizeof bytes);
    printf("%u members in %d bytes\n", IFM_IFLIST_COUNT(&members), length);
    IFM_IFLIST_DESTROY(&members);
    return 0;
}
