// The table of large keys: slots for the entries, and an index of slot numbers in the order of their keys.
//
// An entry stays in its slot; only the index moves. Each slot knows its position there, so inserting and deleting walk
// the part of the index behind them. The lowest free slot is taken; `lowestFree` only saves searching below it.
//
// Adding a key that is there changes nothing, not even the count: references beyond the first are taken by
// zelLargeKeyDataAddRef alone. Stored keys are clean behind their width, which includes the spare word.
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "zel/containers.h"
#include "zel/platform.h"

namespace {

constexpr char source[] = "zelLargeKey";
using Head = zelLargeKeyHead;
using Elem = zelLargeKeyElem;

bool isHead(const Head *head, int line = __builtin_LINE()) {
    return zel::asserted(head, "dataHead", source, line);
}

bool isKey(const uint32_t *key, int line = __builtin_LINE()) {
    return zel::asserted(key, "key", source, line);
}

Elem &elementAt(const Head *head, int position) {
    return head->elemInfo[head->index[position]];
}

bool isTraced(const Head *head, uint32_t flag) {
    return head->dbgFlag & flag;
}

void printKey(const Head *head, const uint32_t *key) {
    if (head->printFn) head->printFn(key);
}

void printState(const Head *head) {
    printf("  Current State is\r");
    printf("    Max %d entries, total %d entries, keySize is %d bits\r\n", head->maxElems, head->numElems,
           static_cast<int>(head->keySize));
}

void traceCall(const Head *head, uint32_t flag, const char *title, const uint32_t *key) {
    if (!isTraced(head, flag)) return;
    printf("%s", title);
    printKey(head, key);
    printState(head);
}

// ---- Search ---------------------------------------------------------------------------------------------------------

// Where a key stands in the index, or belongs.
struct Place {
    int position;
    bool isFound;
};

// The keys of all slots lie one behind the other, from slot 0's on.
const uint32_t *keyAt(const Head *head, int position) {
    return head->elemInfo[0].key + static_cast<size_t>(head->index[position]) * head->keyWords;
}

void traceStep(const Head *head, int start, int end, int middle) {
    printf("    start: %d; end %d; curPos %d; index[curPos] %d; Compare with \r\n", start, end, middle,
           head->index[middle]);
    printKey(head, keyAt(head, middle));
}

// Compiled twice, so that the search without a trace is nothing but the search.
template <bool traces>
Place halve(const Head *head, const uint32_t *key) {
    int start = 0, end = head->numElems - 1;
    while (start <= end) {
        const int middle = start + (end - start) / 2;
        if constexpr (traces) traceStep(head, start, end, middle);
        const int result = BITMAP_COMPARE_BITMAPS(keyAt(head, middle), key, head->keySize);
        if constexpr (traces) printf("    result is %d\r\n", result);
        if (result == 0) return {middle, true};
        if (result < 0)
            start = middle + 1;
        else
            end = middle - 1;
    }
    return {start, false};
}

Place search(const Head *head, const uint32_t *key) {
    if (!isTraced(head, ZEL_LARGE_KEY_SEARCH)) [[likely]]
        return halve<false>(head, key);
    printf("SEARCH\r");
    printKey(head, key);
    const Place place = halve<true>(head, key);
    printf(place.isFound ? "    Found match at pos %d\r\n" : "    No match; insert pos %d\r\n", place.position);
    return place;
}

// ---- Slots and index ------------------------------------------------------------------------------------------------

uint32_t slotBit(int32_t slot) {
    return 0x80000000u >> (slot % 32);
}

// The lowest free slot, marked as used; -1 when there is none.
int32_t takeSlot(Head *head) {
    const auto slots = static_cast<uint32_t>(head->maxElems);
    const int32_t slot = GET_NEXT_UNSET_BIT_BITMAP(head->slotBitmap, slots, head->lowestFree - 1);
    if (slot < 0) return -1;
    head->slotBitmap[slot / 32] |= slotBit(slot);
    head->lowestFree = slot + 1;
    return slot;
}

void freeSlot(Head *head, int32_t slot) {
    head->slotBitmap[slot / 32] &= ~slotBit(slot);
    if (slot < head->lowestFree) head->lowestFree = slot;
}

void storeKey(const Head *head, uint32_t *to, const uint32_t *key) {
    const uint32_t words = head->keySize / 32, rest = head->keySize % 32;
    if (words) memcpy(to, key, words * sizeof *key);
    if (rest) to[words] = key[words] & ~(UINT32_MAX >> rest);
}

void insertInIndex(Head *head, int position, int32_t slot) {
    zel::asserted(head->numElems >= 0, "dataHead->numElems >= 0", source);
    for (int at = head->numElems; at > position; --at) {
        head->index[at] = head->index[at - 1];
        ++elementAt(head, at).position;
    }
    head->index[position] = slot;
    head->elemInfo[slot].position = position;
    ++head->numElems;
}

bool isPosition(const Head *head, int deletePos) {
    return zel::asserted(head->numElems > 0, "dataHead->numElems > 0", source) &&
           zel::asserted(deletePos >= 0 && deletePos < head->numElems,
                         "((deletePos >= 0) && (deletePos < dataHead->numElems))", source);
}

void deleteFromIndex(Head *head, int position) {
    elementAt(head, position).position = 0;
    --head->numElems;
    for (int at = position; at < head->numElems; ++at) {
        head->index[at] = head->index[at + 1];
        --elementAt(head, at).position;
    }
    head->index[head->numElems] = 0;
}

// The references left; the entry goes with the last one.
int dropReference(Head *head, int position) {
    if (isTraced(head, ZEL_LARGE_KEY_DELETE)) printf("    Found at pos %d; deleting\r\n", position);
    const int32_t slot = head->index[position];
    Elem &element = head->elemInfo[slot];
    if (--element.refCount > 0) return element.refCount;
    deleteFromIndex(head, position);
    memset(element.key, 0, head->keyWords * sizeof *element.key);
    element.userData = 0;
    freeSlot(head, slot);
    return 0;
}

// The entry of a key, null when there is none.
Elem *find(const Head *head, const uint32_t *key) {
    const Place place = search(head, key);
    return place.isFound ? &elementAt(head, place.position) : nullptr;
}

void releaseMemory(Head *head) {
    if (head->elemInfo) zelMC_free(source, __LINE__, head->elemInfo[0].key);
    zelMC_free(source, __LINE__, head->elemInfo);
    zelMC_free(source, __LINE__, head->slotBitmap);
    zelMC_free(source, __LINE__, head->index);
    memset(head, 0, sizeof *head);
}

template <class T>
bool allocate(T *&array, size_t count, size_t perItem = 1) {
    array = static_cast<T *>(zelMC_calloc(source, __LINE__, count, perItem * sizeof(T)));
    return array;
}

// False without memory; what was allocated by then hangs on the head.
bool allocateMemory(Head *head) {
    const auto entries = static_cast<size_t>(head->maxElems);
    if (!allocate(head->index, entries) || !allocate(head->slotBitmap, entries / 32 + 1) ||
        !allocate(head->elemInfo, entries) || !allocate(head->elemInfo[0].key, entries, head->keyWords))
        return false;
    for (size_t slot = 1; slot < entries; ++slot)
        head->elemInfo[slot].key = head->elemInfo[slot - 1].key + head->keyWords;
    return true;
}

}  // namespace

int zelLargeKeyDataCreate(zelLargeKeyHead *head, uint32_t keyBits, int32_t maxEntries, zelLargeKeyPrintFn printFn,
                          zelLargeKeyCallerFn callerFn) {
    if (!isHead(head)) return ZEL_ERROR;
    memset(head, 0, sizeof *head);
    if (maxEntries < 1) return ZEL_ERROR;
    head->maxElems = maxEntries;
    head->keySize = keyBits;
    head->keyWords = keyBits / 32 + 1;
    head->printFn = printFn;
    head->callerFn = callerFn;
    if (allocateMemory(head)) return ZEL_OK;
    releaseMemory(head);
    return ZEL_ERROR;
}

int zelLargeKeyDataAdd(zelLargeKeyHead *head, const uint32_t *key, intptr_t userData) {
    if (!isHead(head) || !zel::asserted(key && userData, "((key) && (userData))", source)) return ZEL_ERROR;
    traceCall(head, ZEL_LARGE_KEY_ADD, "ADD\r", key);
    const Place place = search(head, key);
    if (place.isFound) {
        if (isTraced(head, ZEL_LARGE_KEY_ADD)) printf("    Search successful; found at pos %d\r\n", place.position);
        return ZEL_OK;
    }
    if (isTraced(head, ZEL_LARGE_KEY_ADD)) printf("    Search failed; inserting new element\r");
    const int32_t arrayPos = takeSlot(head);
    if (arrayPos < 0) return ZEL_ERROR;
    Elem &element = head->elemInfo[arrayPos];
    zel::asserted(element.refCount == 0, "dataHead->elemInfo[arrayPos].refCount == 0", source);
    insertInIndex(head, place.position, arrayPos);
    storeKey(head, element.key, key);
    element.userData = userData;
    element.refCount = 1;
    return ZEL_OK;
}

int zelLargeKeyDataDelete(zelLargeKeyHead *head, const uint32_t *key, intptr_t *userData) {
    if (!isHead(head) || !isKey(key)) return ZEL_ERROR;
    traceCall(head, ZEL_LARGE_KEY_DELETE, "DEL\r", key);
    const Place place = search(head, key);
    if (!place.isFound) {
        if (isTraced(head, ZEL_LARGE_KEY_DELETE)) printf("    ***********Search failed*********\r");
        return ZEL_ERROR;
    }
    if (userData) *userData = elementAt(head, place.position).userData;
    return dropReference(head, place.position);
}

int zelLargeKeyDataRemove(zelLargeKeyHead *head, int position) {
    if (!isHead(head) || !isPosition(head, position)) return ZEL_ERROR;
    return dropReference(head, position);
}

int zelLargeKeyDataAddRef(zelLargeKeyHead *head, const uint32_t *key) {
    if (!isHead(head) || !isKey(key)) return ZEL_ERROR;
    Elem *element = find(head, key);
    if (!element || element->refCount == INT32_MAX) return ZEL_ERROR;
    return ++element->refCount;
}

int largeKeyDataDelRef(zelLargeKeyHead *head, const uint32_t *key) {
    return zelLargeKeyDataDelete(head, key, nullptr);
}

intptr_t zelLargeKeyDataGet(zelLargeKeyHead *head, const uint32_t *key) {
    if (!isHead(head) || !isKey(key)) return 0;
    const Elem *element = find(head, key);
    return element ? element->userData : 0;
}

int zelLargeKeyDataGetNext(zelLargeKeyHead *head, int position, uint32_t **key, intptr_t *userData) {
    if (!isHead(head) || position < -1 || position >= head->numElems - 1) return -1;
    const Elem &element = elementAt(head, ++position);
    traceCall(head, ZEL_LARGE_KEY_GET_NEXT, "", element.key);
    if (key) *key = element.key;
    if (userData) *userData = element.userData;
    return position;
}

int zelLargeKeyDataCount(zelLargeKeyHead *head) {
    return isHead(head) ? head->numElems : 0;
}

void zelLargeKeySetDbgFlag(zelLargeKeyHead *head, uint32_t flags) {
    if (isHead(head)) head->dbgFlag = flags;
}

void zelLargeKeyDataDump(zelLargeKeyHead *head) {
    if (!isHead(head)) return;
    printState(head);
    for (int at = 0; at < head->numElems; ++at) {
        const Elem &element = elementAt(head, at);
        printf("    pos %d; slot %d; references %d; data 0x%lx\r\n", at, head->index[at], element.refCount,
               static_cast<unsigned long>(element.userData));
        printKey(head, element.key);
    }
}

void zelLargeKeyDataDestroy(zelLargeKeyHead *head) {
    if (isHead(head)) releaseMemory(head);
}
