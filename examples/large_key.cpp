// Sessions by 40-bit keys: sorted, counted, at most four of them.
#include <cstdio>

#include "zel/containers.h"

int main() {
    zelLargeKeyHead sessions;
    if (zelLargeKeyDataCreate(&sessions, 40, 4, nullptr, nullptr) != 0) return 1;

    // The first 32 bits stand in one word, the other eight at the top of the next.
    const uint32_t red[] = {0x0a000001, 0x50000000}, green[] = {0x0a000001, 0x17000000}, blue[] = {0x09ffffff, 0};
    zelLargeKeyDataAdd(&sessions, red, 1);
    zelLargeKeyDataAdd(&sessions, green, 2);
    zelLargeKeyDataAdd(&sessions, blue, 3);
    zelLargeKeyDataAddRef(&sessions, green);
    printf("one reference of green less leaves %d\n", largeKeyDataDelRef(&sessions, green));

    intptr_t data = 0;
    zelLargeKeyDataDelete(&sessions, red, &data);
    printf("red is gone, its data was %d\n", static_cast<int>(data));

    uint32_t *key = nullptr;
    for (int at = -1; (at = zelLargeKeyDataGetNext(&sessions, at, &key, &data)) >= 0;)
        printf("%d: key %08x %02x, data %d\n", at, key[0], key[1] >> 24, static_cast<int>(data));
    zelLargeKeyDataDestroy(&sessions);
}
