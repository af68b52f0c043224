// Interface names, written and read.
//
// One table gives each type its names. What follows the name tells the layout - one number is a logical index, two a
// physical one, three a port extender's. How users count the ports of a card is the card table's to say; reading
// therefore looks for the port whose text is the one given, and takes an index only when it is printed that way.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string_view>

#include "base/assertion.h"
#include "zel/ifm.h"

namespace zel::ifm {
namespace {

struct TypeName {
    uint32_t type;
    const char *longName;
    const char *shortName;
};

// Of two rows with one long name, the first is what the name means.
constexpr TypeName typeNames[] = {
    {IFM_TYPE_MANAGEMENT, "ManagementEthernet", "Ma"},
    {IFM_TYPE_FAST_ETHERNET, "FastEthernet", "Fa"},
    {IFM_TYPE_GIGABIT_ETHERNET, "GigabitEthernet", "Gi"},
    {IFM_TYPE_TEN_GIGABIT_ETHERNET, "TenGigabitEthernet", "Te"},
    {IFM_TYPE_FORTY_GIGABIT_ETHERNET, "fortyGigE", "Fo"},
    {IFM_TYPE_FIBRE_CHANNEL, "FibreChannel", "Fc"},
    {IFM_TYPE_PE_GIGABIT_ETHERNET, "peGigE", "PeGi"},
    {IFM_TYPE_PE_TEN_GIGABIT_ETHERNET, "peTenGigE", "PeTe"},
    {IFM_TYPE_PE_FORTY_GIGABIT_ETHERNET, "peFortyGigE", "PeFo"},
    {IFM_TYPE_TEN_GIGABIT_ETHERNET_2, "TenGigabitEthernet", "Te"},
    {IFM_TYPE_TWENTY_GIGABIT_ETHERNET, "twentyGigE", "Tw"},
    {IFM_TYPE_TWENTY_FIVE_GIGABIT_ETHERNET, "twentyFiveGigE", "Tf"},
    {IFM_TYPE_FIFTY_GIGABIT_ETHERNET, "fiftyGigE", "Fi"},
    {IFM_TYPE_HUNDRED_GIGABIT_ETHERNET, "hundredGigE", "Hu"},
    {IFM_TYPE_TUNNEL, "Tunnel", "Tu"},
    {IFM_TYPE_NULL, "Null", "Nu"},
    {IFM_TYPE_LOOPBACK, "Loopback", "Lo"},
    {IFM_TYPE_PORT_CHANNEL, "Port-channel", "Po"},
    {IFM_TYPE_VLAN, "Vlan", "Vl"},
    {IFM_TYPE_VIRTUAL_PORT, "VirtualPort", "Vp"},
};

constexpr TypeName unknown = {0, "Unknown", "Unknown"};
constexpr int firstManagementSlot = 13;
constexpr size_t portTextSize = 16;

// Widths of the fields that names fill, as numbers of values.
constexpr long noSlot = -1, slots = 63, ports = 1024, extenders = 512, extenderSlots = 16, extenderPorts = 128,
               numbers = 16384;

const TypeName &namesOf(uint32_t type) {
    for (const TypeName &names : typeNames)
        if (names.type == type) return names;
    return unknown;
}

void writePortText(int slot, uint32_t port, char (&text)[portTextSize]) {
    const zelCardTable *cards = zelPlatformCardTable();
    text[0] = '\0';
    cards->portText(cards->context, slot, port, text, portTextSize);
    text[portTextSize - 1] = '\0';
}

bool isPortNumbered(uint32_t type) {
    return type == IFM_TYPE_MANAGEMENT && zelPlatformCardTable()->hasFourPartNames;
}

void writePhysical(char *buffer, const char *name, uint32_t ifIndex) {
    const uint32_t type = ifmIfIndexToIfType(ifIndex), port = ifmIfIndexToPortId(ifIndex);
    const int slot = ifmIfIndexToSlotId(ifIndex);
    const int shownSlot = type == IFM_TYPE_MANAGEMENT ? slot - firstManagementSlot : slot;
    char text[portTextSize];
    if (isPortNumbered(type))
        snprintf(text, sizeof text, "%d", static_cast<int>(port) + 1);
    else
        writePortText(slot, port, text);
    snprintf(buffer, IFM_NAME_SIZE, "%s %d/%s", name, shownSlot, text);
}

char *writeName(char *buffer, const char *name, uint32_t ifIndex) {
    if (ifIndex == 0)
        strcpy(buffer, "Invalid");
    else if (!ifmIfIndexToPlFlag(ifIndex))
        snprintf(buffer, IFM_NAME_SIZE, "%s %d", name, static_cast<int>(ifmIfIndexToIfNum(ifIndex)));
    else if (ifmIfIndexToPeFlag(ifIndex))
        snprintf(buffer, IFM_NAME_SIZE, "%s %d/%d/%d", name, static_cast<int>(ifmIfIndexToPeId(ifIndex)),
                 ifmIfIndexToSlotId(ifIndex), static_cast<int>(ifmIfIndexToPortId(ifIndex)) + 1);
    else
        writePhysical(buffer, name, ifIndex);
    return buffer;
}

// The type whose long name starts the text, the longest of those that do; the text is cut behind it.
const TypeName *takeType(const char *&text) {
    const TypeName *best = nullptr;
    size_t bestLength = 0;
    for (const TypeName &names : typeNames) {
        const size_t length = strlen(names.longName);
        if (length > bestLength && strncasecmp(text, names.longName, length) == 0) best = &names, bestLength = length;
    }
    text += bestLength;
    return best;
}

// A decimal number from `least` up to below `end`, which is cut off the text; false without one.
bool takeNumber(const char *&text, long least, long end, long &number) {
    const char *digits = text + (least < 0 && *text == '-');
    if (!isdigit(static_cast<unsigned char>(*digits))) return false;
    char *behind;
    number = strtol(text, &behind, 10);
    text = behind;
    return number >= least && number < end;
}

bool takeSlash(const char *&text) {
    const bool isSlash = *text == '/';
    text += isSlash;
    return isSlash;
}

bool isWhole(const char *text, long least, long end, long &number) {
    return takeNumber(text, least, end, number) && *text == '\0';
}

bool isExtenderType(uint32_t type) {
    return type >= IFM_TYPE_PE_GIGABIT_ETHERNET && type <= IFM_TYPE_PE_FORTY_GIGABIT_ETHERNET;
}

uint32_t readExtender(uint32_t type, const char *text) {
    long extender, slot, port;
    if (!takeNumber(text, 0, extenders, extender) || !takeSlash(text) || !takeNumber(text, 0, extenderSlots, slot) ||
        !takeSlash(text) || !isWhole(text, 1, extenderPorts + 1, port))
        return 0;
    return ifmCreatePeIfIndex(type, static_cast<uint16_t>(slot), static_cast<uint16_t>(port - 1),
                              static_cast<uint16_t>(extender));
}

// The port of a slot that is printed as `text`, or `ports`.
long portNamed(uint32_t type, int slot, const char *text) {
    long number;
    if (isPortNumbered(type)) return isWhole(text, 1, ports + 1, number) ? number - 1 : ports;
    char candidate[portTextSize];
    for (long port = 0; port < ports; ++port) {
        writePortText(slot, static_cast<uint32_t>(port), candidate);
        if (strcasecmp(candidate, text) == 0) return port;
    }
    return ports;
}

uint32_t readPhysical(uint32_t type, const char *text) {
    const long offset = type == IFM_TYPE_MANAGEMENT ? firstManagementSlot : 0;
    long slot;
    if (!takeNumber(text, noSlot - offset, slots - offset, slot) || !takeSlash(text)) return 0;
    slot += offset;
    const long port = portNamed(type, static_cast<int>(slot), text);
    if (port == ports) return 0;
    return ifmCreatePhysicalIfIndex(type, static_cast<uint16_t>(slot), static_cast<uint16_t>(port), 0);
}

uint32_t readLogical(uint32_t type, const char *text) {
    long number;
    if (!isWhole(text, 0, numbers, number)) return 0;
    return ifmCreateLogicalIfIndex(type, 0, 0, static_cast<uint16_t>(number));
}

uint32_t readAny(uint32_t type, const char *text) {
    const char *slash = strchr(text, '/');
    if (!slash) return readLogical(type, text);
    const bool isExtender = isExtenderType(type) && strchr(slash + 1, '/');
    return isExtender ? readExtender(type, text) : readPhysical(type, text);
}

}  // namespace
}  // namespace zel::ifm

using namespace zel;
using namespace zel::ifm;

char *ifmIfIndexToName(uint32_t ifIndex, char *ifNameBuf) {
    if (!asserted(ifNameBuf, "ifNameBuf != NULL", "ifmLib")) return nullptr;
    return writeName(ifNameBuf, namesOf(ifmIfIndexToIfType(ifIndex)).shortName, ifIndex);
}

char *ifmIfIndexToLName(uint32_t ifIndex, char *ifLNameBuf) {
    if (!asserted(ifLNameBuf, "ifLNameBuf != NULL", "ifmLib")) return nullptr;
    return writeName(ifLNameBuf, namesOf(ifmIfIndexToIfType(ifIndex)).longName, ifIndex);
}

uint32_t zelIfmLNameToIfIndex(const char *name) {
    if (!name) return 0;
    const TypeName *names = takeType(name);
    if (!names) return 0;
    while (*name == ' ') ++name;
    const uint32_t ifIndex = readAny(names->type, name);
    char printed[IFM_NAME_SIZE];
    writeName(printed, "", ifIndex);
    return strcasecmp(printed + 1, name) == 0 ? ifIndex : 0;
}
