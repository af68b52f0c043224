// Neighbours in a hash table, found by address and removed while stepping through.
#include <cstdio>
#include <cstring>

#include "zel/containers.h"

struct Neighbour {
    zelDLLNode node;  // always first
    unsigned char address[6];
    int port;
};

static int isAnother(void *record, va_list arguments) {
    return memcmp(static_cast<Neighbour *>(record)->address, va_arg(arguments, const unsigned char *), 6);
}

int main() {
    Neighbour neighbours[] = {{{}, {2, 0, 0, 0, 0, 1}, 1}, {{}, {2, 0, 0, 0, 0, 2}, 2}, {{}, {2, 0, 0, 0, 1, 1}, 1}};
    zelHash *table = zelHashCreate(16, nullptr, nullptr);
    for (Neighbour &each : neighbours) zelHashInsertAtBack(table, zelHashGetKey(table, each.address, 6), &each);

    const unsigned char wanted[6] = {2, 0, 0, 0, 0, 2};
    zelHashBucket *bucket;
    void *found = zelHashFind(table, &bucket, zelHashGetKey(table, wanted, 6), isAnother, wanted);
    printf("found on port %d\n", static_cast<Neighbour *>(found)->port);

    puts("port 1 goes down");
    void *record = zelHashGetFirst(table, &bucket);
    while (record)
        record = static_cast<Neighbour *>(record)->port == 1 ? zelHashRemoveAndGetNext(table, &bucket, record)
                                                             : zelHashGetNext(table, &bucket, record);

    uint32_t total, nodes, hits, most;
    zelHashStat(table, zelHashGetKey(table, wanted, 6), &total, &nodes, &hits, &most);
    printf("%u neighbour left, %u in its bucket, which took %u\n", total, nodes, hits);
    zelHashRemove(table, &bucket, zelHashGetFirst(table, &bucket));
    zelHashDestroy(table);
}
