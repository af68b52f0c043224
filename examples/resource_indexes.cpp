// Slots 10 to 14 of a hardware table for routes. A standby takes the messages in, which a real program would send; here
// they only are counted.
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "zel/resmgr.h"

enum { client = 0, slots = 0 };
static int messages;

static int sendToStandby(const void *, uint32_t) {
    ++messages;
    return 0;
}

static void add(const char *route) {
    char key[16] = "";
    strncpy(key, route, sizeof key - 1);
    const zelResKey wanted = {key, sizeof key, 0, 0};
    int32_t slot;
    const int result = resMgmtApiAddObject(client, slots, &wanted, nullptr, 0, &slot);
    if (result == ZEL_RES_OK)
        printf("%s: slot %d\n", route, slot);
    else
        printf("%s: result %d\n", route, result);
}

static void drop(const char *route) {
    char key[16] = "";
    strncpy(key, route, sizeof key - 1);
    if (resMgmtApiDelObject(client, slots, key, sizeof key) == ZEL_RES_OK) printf("%s: removed\n", route);
}

int main() {
    resMgmtLibRegisterClient(client, 175, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                             0, 0);
    zelResDbParams params = {slots, "route slots", 0, 16, 10, 14, 5, 0};
    if (resMgmtLibProcDbCreate(client, &params, 10, 14) != ZEL_RES_OK) return 1;
    resMgmtLibSetTransport(sendToStandby, nullptr);

    for (const char *route : {"10.0.0.0/8", "10.1.0.0/16", "10.1.1.0/24", "10.0.0.0/8"}) add(route);
    drop("10.1.0.0/16");
    for (const char *route : {"10.2.0.0/16", "10.3.0.0/16", "10.4.0.0/16", "10.5.0.0/16"}) add(route);

    rmLibDumpAllResourceDb();
    printf("%d messages to the standby\n", messages);
    resMgmtLibTerminate();
    return 0;
}
