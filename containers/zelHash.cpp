// The hash table: an array of intrusive lists.
//
// The caller names the bucket, so the table never calls a hash function and never grows. Invariants: each record is in
// the list of one bucket; h_curnum counts the records of a bucket and hh_curnum those of all; hits only grow, and the
// high-water mark follows h_curnum upwards.
//
// A cursor is the address of a bucket. Steps forwards and backwards differ on purpose: looking for the last record
// leaves bucket 0 out, stepping back to the previous one does not.
#include <bit>
#include <cstring>

#include "base/assertion.h"
#include "base/wire.h"
#include "zel/containers.h"
#include "zel/platform.h"

namespace {

constexpr char source[] = "zelHash";
constexpr uint32_t bucketsInUse = 0xffff;

bool isTable(const zelHash *table, int line = __builtin_LINE()) {
    return zel::asserted(table && table->hh_magic == zelHASH_MAGIC, "hh->hh_magic == zelHASH_MAGIC", source, line);
}

bool isPowerOfTwo(int size) {
    return size > 0 && (size & (size - 1)) == 0;
}

zelHashBucket *bucketOf(zelHash *table, uint32_t bid, int line = __builtin_LINE()) {
    if (!zel::asserted(bid < static_cast<uint32_t>(table->hh_size), "bid < hh->hh_size", source, line)) return nullptr;
    return table->hh_buckets + bid;
}

zelHashBucket *endOf(const zelHash *table) {
    return table->hh_buckets + table->hh_size;
}

zelDLLNode *nodeOf(void *record) {
    return static_cast<zelDLLNode *>(record);
}

void initialiseBuckets(zelHash *table) {
    memset(table->hh_buckets, 0, static_cast<size_t>(table->hh_size) * sizeof(zelHashBucket));
    for (zelHashBucket *bucket = table->hh_buckets; bucket != endOf(table); ++bucket) zelDLLInit(&bucket->h_list);
}

// Sets the cursor beside what it returns, which is null when `bucket` is.
void *at(zelHashBucket **cursor, zelHashBucket *bucket, zelDLLNode *node) {
    *cursor = bucket;
    return node;
}

void *firstFrom(zelHash *table, zelHashBucket *bucket, zelHashBucket **cursor) {
    for (; bucket != endOf(table); ++bucket)
        if (zelDLLNode *node = zelDLLGetFirst(&bucket->h_list)) return at(cursor, bucket, node);
    return at(cursor, nullptr, nullptr);
}

// The last record before `bucket`, and not before `lowest`.
void *lastBefore(zelHashBucket *bucket, const zelHashBucket *lowest, zelHashBucket **cursor) {
    while (bucket > lowest) {
        --bucket;
        if (zelDLLNode *node = zelDLLGetLast(&bucket->h_list)) return at(cursor, bucket, node);
    }
    return at(cursor, nullptr, nullptr);
}

template <void link(zelDLL *, zelDLLNode *)>
void insert(zelHash *table, uint32_t bid, void *record, int line) {
    if (!isTable(table, line) || !zel::asserted(record, "record", source, line)) return;
    zelHashBucket *bucket = bucketOf(table, bid, line);
    if (!bucket) return;
    link(&bucket->h_list, nodeOf(record));
    ++table->hh_curnum;
    ++bucket->h_hits;
    if (++bucket->h_curnum > bucket->h_hwm) bucket->h_hwm = bucket->h_curnum;
}

bool isBucket(const zelHash *table, const zelHashBucket *bucket, int line = __builtin_LINE()) {
    return zel::asserted(bucket >= table->hh_buckets && bucket < endOf(table), "bucket", source, line);
}

bool canRemove(const zelHash *table, const zelHashBucket *bucket, const void *record, int line = __builtin_LINE()) {
    return zel::asserted(record, "record", source, line) && isBucket(table, bucket, line);
}

void takeOut(zelHash *table, zelHashBucket *bucket, void *record) {
    zelDLLRemove(&bucket->h_list, nodeOf(record));
    --bucket->h_curnum;
    --table->hh_curnum;
}

void *next(zelHash *table, zelHashBucket **cursor, void *record) {
    zelHashBucket *bucket = *cursor;
    if (zelDLLNode *node = zelDLLGetNext(&bucket->h_list, nodeOf(record))) return node;
    return firstFrom(table, bucket + 1, cursor);
}

// ---- The checksum ---------------------------------------------------------------------------------------------------
//
// A one's complement sum is the same whether it is added up in words of 16 bits or in longer ones whose carries come
// back at the low end, and whichever byte of a word comes first, as long as the sum's bytes are taken in that order,
// too. So the key is added in the host's longest words. An odd last byte counts as the first of a word.

uint64_t add(uint64_t sum, uint64_t word) {
    const bool carry = __builtin_add_overflow(sum, word, &sum);
    return sum + carry;
}

template <class Word>
Word hostWord(const uint8_t *bytes) {
    Word word;
    memcpy(&word, bytes, sizeof word);
    return word;
}

uint64_t sumAsHost(const uint8_t *bytes, uint32_t length) {
    uint64_t sum = 0;
    for (; length >= 16; length -= 16, bytes += 16)
        sum = add(add(sum, hostWord<uint64_t>(bytes)), hostWord<uint64_t>(bytes + 8));
    if (length & 8) sum = add(sum, hostWord<uint64_t>(bytes));
    bytes += length & 8;
    length &= 7;
    if (length == 0) return sum;
    if (length & 4) sum = add(sum, hostWord<uint32_t>(bytes));
    bytes += length & 4;
    if (length & 2) sum = add(sum, hostWord<uint16_t>(bytes));
    bytes += length & 2;
    if (length & 1) sum = add(sum, zel::wire::bigEndian(static_cast<uint16_t>(*bytes << 8)));
    return sum;
}

// The definition. The sum of a longer key wraps at 32 bits, and a carry that is lost is not in the longer words' sum.
constexpr uint32_t longestUnwrapped = 0x20000;
uint32_t sumWrapped(const uint8_t *bytes, uint32_t length) {
    uint32_t sum = length & 1 ? static_cast<uint32_t>(bytes[length - 1] << 8) : 0;
    for (size_t i = 0; i < length / 2; ++i) sum += zel::wire::load<uint16_t>(bytes + 2 * i);
    return sum;
}

// Adding the halves in both orders carries from the lower sum to the upper one, which is then complete.
uint16_t fold(uint64_t sum) {
    const auto half = static_cast<uint32_t>((sum + std::rotr(sum, 32)) >> 32);
    return static_cast<uint16_t>((half + std::rotr(half, 16)) >> 16);
}

uint16_t checksum(const uint8_t *bytes, uint32_t length) {
    if (length > longestUnwrapped) return fold(sumWrapped(bytes, length));
    return zel::wire::bigEndian(fold(sumAsHost(bytes, length)));
}

}  // namespace

zelHash *zelHashCreate(int size, zelAllocFn allocFn, zelFreeFn freeFn) {
    zel::asserted(size, "size", source);
    if (!zel::asserted(isPowerOfTwo(size), "((size) ? ((((size) & ((size) - 1)) == 0) ? 1 : 0) : 0)", source))
        return nullptr;
    const zelAllocFn allocate = allocFn ? allocFn : zelHashMalloc;
    const zelFreeFn release = freeFn ? freeFn : zelHashFree;
    if (static_cast<size_t>(size) > SIZE_MAX / sizeof(zelHashBucket)) return nullptr;
    auto *table = static_cast<zelHash *>(allocate(sizeof(zelHash)));
    if (!table) return nullptr;
    auto *buckets = static_cast<zelHashBucket *>(allocate(static_cast<size_t>(size) * sizeof(zelHashBucket)));
    if (!buckets) {
        release(table);
        return nullptr;
    }
    *table = {zelHASH_MAGIC, buckets, size, 0, allocate, release};
    initialiseBuckets(table);
    return table;
}

void zelHashInit(zelHash *table) {
    if (!table || !isTable(table)) return;
    table->hh_curnum = 0;
    initialiseBuckets(table);
}

void zelHashDestroy(zelHash *table) {
    if (!isTable(table)) return;
    zel::asserted(!table->hh_curnum, "!hh->hh_curnum", source);
    for (zelHashBucket *bucket = table->hh_buckets; bucket != endOf(table); ++bucket)
        zel::asserted(!bucket->h_curnum, "!t->h_curnum", source);
    table->hh_magic = 0;
    const zelFreeFn release = table->hh_free;
    release(table->hh_buckets);
    release(table);
}

uint32_t zelHashGetKey(zelHash *table, const void *key, uint32_t length) {
    if (!isTable(table) || !key || length == 0) return 0;
    const uint32_t sum = checksum(static_cast<const uint8_t *>(key), length);
    const uint32_t bid = ~sum & (static_cast<uint32_t>(table->hh_size) - 1) & bucketsInUse;
    __builtin_prefetch(&table->hh_buckets[bid]);  // callers go on to that bucket
    return bid;
}

void zelHashInsertAtFront(zelHash *table, uint32_t bid, void *record) {
    insert<zelDLLInsertAtFront>(table, bid, record, __LINE__);
}

void zelHashInsertAtBack(zelHash *table, uint32_t bid, void *record) {
    insert<zelDLLInsertAtBack>(table, bid, record, __LINE__);
}

void *zelHashFind(zelHash *table, zelHashBucket **cursor, uint32_t bid, int (*compare)(void *record, va_list arguments),
                  ...) {
    *cursor = nullptr;
    if (!isTable(table)) return nullptr;
    zelHashBucket *bucket = bucketOf(table, bid);
    if (!bucket) return nullptr;
    zelDLLNode *node = zelDLLGetFirst(&bucket->h_list);
    for (; node; node = zelDLLGetNext(&bucket->h_list, node)) {
        // Started for each record, for reading the arguments uses the list up. A copy of one list would be slower: it
        // is read back from memory in other pieces than it was written in, which waits for everything before it.
        va_list arguments;
        va_start(arguments, compare);
        const int difference = compare(node, arguments);
        va_end(arguments);
        if (difference == 0) return at(cursor, bucket, node);
    }
    return nullptr;
}

void zelHashRemove(zelHash *table, zelHashBucket **cursor, void *record) {
    if (isTable(table) && canRemove(table, *cursor, record)) takeOut(table, *cursor, record);
}

void *zelHashRemoveAndGetNext(zelHash *table, zelHashBucket **cursor, void *record) {
    if (!isTable(table) || !canRemove(table, *cursor, record)) return nullptr;
    zelHashBucket *bucket = *cursor;  // the step moves the cursor
    void *following = next(table, cursor, record);
    takeOut(table, bucket, record);
    return following;
}

void *zelHashGetFirst(zelHash *table, zelHashBucket **cursor) {
    return isTable(table) ? firstFrom(table, table->hh_buckets, cursor) : nullptr;
}

void *zelHashGetNext(zelHash *table, zelHashBucket **cursor, void *record) {
    if (!isTable(table)) return nullptr;
    if (!record || !*cursor) return firstFrom(table, table->hh_buckets, cursor);
    return isBucket(table, *cursor) ? next(table, cursor, record) : nullptr;
}

void *zelHashGetLast(zelHash *table, zelHashBucket **cursor) {
    return isTable(table) ? lastBefore(endOf(table), table->hh_buckets + 1, cursor) : nullptr;
}

void *zelHashGetPrev(zelHash *table, zelHashBucket **cursor, void *record) {
    if (!record || !*cursor) return zelHashGetLast(table, cursor);
    if (!isTable(table) || !isBucket(table, *cursor)) return nullptr;
    if (zelDLLNode *node = zelDLLGetPrev(&(*cursor)->h_list, nodeOf(record))) return node;
    return lastBefore(*cursor, table->hh_buckets, cursor);
}

void *zelHashGetBucketFirst(zelHash *table, zelHashBucket **cursor) {
    if (!isTable(table) || (*cursor && !isBucket(table, *cursor))) return nullptr;
    return firstFrom(table, *cursor ? *cursor : table->hh_buckets, cursor);
}

void zelHashStat(zelHash *table, uint32_t bid, uint32_t *total, uint32_t *nodes, uint32_t *hits, uint32_t *hwm) {
    if (!isTable(table)) return;
    const zelHashBucket *bucket = bucketOf(table, bid);
    if (!bucket) return;
    *total = table->hh_curnum;
    *nodes = bucket->h_curnum;
    *hits = bucket->h_hits;
    *hwm = bucket->h_hwm;
}

void *zelHashMalloc(size_t bytes) {
    return zelMC_malloc(source, __LINE__, bytes);
}

void zelHashFree(void *block) {
    zelMC_free(source, __LINE__, block);
}
