// The console that exercises a hash table by hand: one operation a line, by number. The current record is the one that
// the last operation found; removing takes that one.
#include <cstdio>
#include <cstdlib>

#include "zel/containers.h"

namespace {

constexpr int testBuckets = 16;

// What the console adds. All its bytes are hashed, so the links are zero until it is in the table.
struct Entry {
    zelDLLNode node;
    long value;
};

struct Console {
    zelHash *table;
    void (*print)(void *record);
    zelHashBucket *cursor = nullptr;
    Entry *current = nullptr;
};

uint32_t bucketFor(zelHash *table, const Entry &entry) {
    return zelHashGetKey(table, &entry, sizeof entry);
}

// Makes what an operation found the current record, and says so.
void show(Console &console, void *record, const char *found, const char *notFound) {
    console.current = static_cast<Entry *>(record);
    if (record)
        printf("%s entry %ld\n", found, console.current->value);
    else
        printf("%s\n", notFound);
}

void getFirst(Console &console, long) {
    show(console, zelHashGetFirst(console.table, &console.cursor), "Fisrt", "No first entry found.");
}

void getLast(Console &console, long) {
    show(console, zelHashGetLast(console.table, &console.cursor), "Last", "No last entry found.");
}

void getNext(Console &console, long) {
    show(console, zelHashGetNext(console.table, &console.cursor, console.current), "Next", "No next entry found.");
}

void getPrevious(Console &console, long) {
    show(console, zelHashGetPrev(console.table, &console.cursor, console.current), "Prev", "No prev entry found.");
}

void insert(Console &console, long value, void (*insertInto)(zelHash *, uint32_t, void *)) {
    auto *entry = static_cast<Entry *>(zelHashMalloc(sizeof(Entry)));
    if (!entry) {
        printf("Insufficient memory. Exiting.\n");
        exit(1);
    }
    *entry = {{}, value};
    insertInto(console.table, bucketFor(console.table, *entry), entry);
}

void insertFront(Console &console, long value) {
    insert(console, value, zelHashInsertAtFront);
}

void insertBack(Console &console, long value) {
    insert(console, value, zelHashInsertAtBack);
}

int compareValue(void *record, va_list arguments) {
    return static_cast<Entry *>(record)->value != va_arg(arguments, long);
}

void find(Console &console, long value) {
    const uint32_t bid = bucketFor(console.table, {{}, value});
    show(console, zelHashFind(console.table, &console.cursor, bid, compareValue, value), "Found", "No entry found.");
}

void removeCurrent(Console &console, long) {
    if (!console.current) {
        printf("No entry found.\n");
        return;
    }
    zelHashRemove(console.table, &console.cursor, console.current);
    zelHashFree(console.current);
    console.current = nullptr;
}

void printAll(Console &console, long) {
    if (!console.print) {
        printf("No user supplied print function.\n");
        return;
    }
    zelHashBucket *cursor;
    void *record = zelHashGetFirst(console.table, &cursor);
    for (; record; record = zelHashGetNext(console.table, &cursor, record)) console.print(record);
}

void statistics(Console &console, long) {
    const zelHash *table = console.table;
    printf("Hash table has %d nodes currently\n", static_cast<int>(table->hh_curnum));
    for (int i = 0; i < table->hh_size; ++i) {
        const zelHashBucket &bucket = table->hh_buckets[i];
        printf("Bucket %6d: %10d hits, %10d nodes, %10d hwm\n", i, static_cast<int>(bucket.h_hits),
               static_cast<int>(bucket.h_curnum), static_cast<int>(bucket.h_hwm));
    }
}

void help(Console &, long);

constexpr struct Operation {
    const char *name;
    void (*run)(Console &console, long value);  // null ends the console
    bool takesValue;
} operations[] = {
    {"Help", help, false},
    {"Quit", nullptr, false},
    {"Get first", getFirst, false},
    {"Get last", getLast, false},
    {"Get next", getNext, false},
    {"Get prev", getPrevious, false},
    {"Insert front", insertFront, true},
    {"Insert back", insertBack, true},
    {"Find", find, true},
    {"Remove", removeCurrent, false},
    {"Print all", printAll, false},
    {"Hash Stat", statistics, false},
};
constexpr int operationCount = sizeof operations / sizeof operations[0];

void help(Console &, long) {
    for (int i = 0; i < operationCount; ++i) printf("%2d %s\n", i + 1, operations[i].name);
}

// Whether the console goes on.
bool execute(Console &console, const char *line) {
    int number = 0;
    long value = 0;
    const int given = sscanf(line, "%d%ld", &number, &value);
    if (given >= 1 && (number < 1 || number > operationCount)) {
        printf("Bad operation.\n");
        return true;
    }
    const Operation *operation = given >= 1 ? &operations[number - 1] : nullptr;
    if (!operation || (operation->takesValue && given < 2)) {
        printf("Bad number of arguments.\n");
        return true;
    }
    if (operation->run) operation->run(console, value);
    return operation->run;
}

void printEntry(void *record) {
    printf("Entry %ld\n", static_cast<Entry *>(record)->value);
}

}  // namespace

void zelHashAttach(zelHash *table, void (*print)(void *record)) {
    if (!table || table->hh_magic != zelHASH_MAGIC) {
        printf("Illegal magic: not a hash head.\n");
        return;
    }
    Console console{table, print};
    char line[80];
    do {
        printf("\nPrompt: ");
        fflush(stdout);
    } while (fgets(line, sizeof line, stdin) && execute(console, line));
}

void zelHashTest(void) {
    zelHash *table = zelHashCreate(testBuckets, nullptr, nullptr);
    if (!table) return;
    zelHashAttach(table, printEntry);
    zelHashBucket *cursor;
    for (void *record = zelHashGetFirst(table, &cursor); record;) {
        void *following = zelHashRemoveAndGetNext(table, &cursor, record);
        zelHashFree(record);
        record = following;
    }
    zelHashDestroy(table);
}
