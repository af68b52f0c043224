// Byte rings for one writer and one reader, without a lock.
//
// The writer alone moves the write index and the reader alone the read index; each publishes its own with a release and
// reads the other's with an acquire, so bytes are seen before the index that covers them. Both stand on lines of their
// own, and each side keeps the last value it saw of the other's index: it looks again only when that is not enough, so
// in a stream the two rarely touch each other's line. A side's index never passes what it saw of the other's.
//
// One byte is always unused, which tells a full ring from an empty one.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "zel/kernel.h"
#include "zel/platform.h"

namespace {

constexpr std::size_t cacheLine = 64;
constexpr char tag[] = "rngLib";

using Index = std::atomic<int>;

// One side's index and what it last saw of the other's.
struct Side {
    Index index;
    int seen;
    char apart[cacheLine - sizeof(Index) - sizeof(int)];
};

}  // namespace

struct zelRing {
    Side writer;
    Side reader;
    int size;
    char *bytes;
};

namespace {

int bytesFrom(int read, int write, int size) {
    const int held = write - read;
    return held < 0 ? held + size : held;
}

int freeFrom(int read, int write, int size) {
    const int room = read - write - 1;
    return room < 0 ? room + size : room;
}

// The index `by` bytes further, or back.
int advanced(int index, int by, int size) {
    const auto sum = static_cast<int>((static_cast<long long>(index) + by) % size);
    return sum < 0 ? sum + size : sum;
}

// Copies over the end of the ring, in two pieces, and publishes the index behind them. Apart from the calls below, so
// that those keep little on the stack where one piece is enough.
[[gnu::noinline]] int putRoundTheEnd(zelRing &ring, int index, const char *from, int count) {
    const int first = ring.size - index, rest = count - first;
    memcpy(ring.bytes + index, from, static_cast<std::size_t>(first));
    memcpy(ring.bytes, from + first, static_cast<std::size_t>(rest));
    ring.writer.index.store(rest, std::memory_order_release);
    return count;
}

[[gnu::noinline]] int getRoundTheEnd(zelRing &ring, int index, char *to, int count) {
    const int first = ring.size - index, rest = count - first;
    memcpy(to, ring.bytes + index, static_cast<std::size_t>(first));
    memcpy(to + first, ring.bytes, static_cast<std::size_t>(rest));
    ring.reader.index.store(rest, std::memory_order_release);
    return count;
}

}  // namespace

zelRingId rngCreate(int nBytes) {
    if (nBytes < 0 || nBytes == INT32_MAX) return nullptr;
    const std::size_t size = static_cast<std::size_t>(nBytes) + 1;
    void *header = zelMC_malloc(tag, __LINE__, sizeof(zelRing));
    if (header == nullptr) return nullptr;
    auto *bytes = static_cast<char *>(zelMC_malloc(tag, __LINE__, size));
    if (bytes == nullptr) {
        zelMC_free(tag, __LINE__, header);
        return nullptr;
    }
    auto *ring = new (header) zelRing{};
    ring->size = static_cast<int>(size);
    ring->bytes = bytes;
    return ring;
}

void rngDelete(zelRingId ring) {
    zelMC_free(tag, __LINE__, ring->bytes);
    zelMC_free(tag, __LINE__, ring);
}

void rngFlush(zelRingId ring) {
    ring->writer.seen = ring->reader.seen = 0;
    ring->writer.index.store(0, std::memory_order_relaxed);
    ring->reader.index.store(0, std::memory_order_release);
}

int rngBufPut(zelRingId ring, const char *buffer, int nBytes) {
    Side &self = ring->writer;
    const int write = self.index.load(std::memory_order_relaxed);
    int room = freeFrom(self.seen, write, ring->size);
    if (room < nBytes) {
        self.seen = ring->reader.index.load(std::memory_order_acquire);
        room = freeFrom(self.seen, write, ring->size);
    }
    const int count = std::min(nBytes, room);
    if (count <= 0) return 0;
    if (count >= ring->size - write) return putRoundTheEnd(*ring, write, buffer, count);
    memcpy(ring->bytes + write, buffer, static_cast<std::size_t>(count));
    self.index.store(write + count, std::memory_order_release);
    return count;
}

int rngBufGet(zelRingId ring, char *buffer, int maxBytes) {
    Side &self = ring->reader;
    const int read = self.index.load(std::memory_order_relaxed);
    int held = bytesFrom(read, self.seen, ring->size);
    if (held < maxBytes) {
        self.seen = ring->writer.index.load(std::memory_order_acquire);
        held = bytesFrom(read, self.seen, ring->size);
    }
    const int count = std::min(maxBytes, held);
    if (count <= 0) return 0;
    if (count >= ring->size - read) return getRoundTheEnd(*ring, read, buffer, count);
    memcpy(buffer, ring->bytes + read, static_cast<std::size_t>(count));
    self.index.store(read + count, std::memory_order_release);
    return count;
}

int rngNBytes(zelRingId ring) {
    const int read = ring->reader.index.load(std::memory_order_acquire);
    return bytesFrom(read, ring->writer.index.load(std::memory_order_acquire), ring->size);
}

int rngFreeBytes(zelRingId ring) {
    const int read = ring->reader.index.load(std::memory_order_acquire);
    return freeFrom(read, ring->writer.index.load(std::memory_order_acquire), ring->size);
}

int rngIsEmpty(zelRingId ring) {
    return rngNBytes(ring) == 0;
}

int rngIsFull(zelRingId ring) {
    return rngFreeBytes(ring) == 0;
}

void rngMoveAhead(zelRingId ring, int n) {
    Side &self = ring->writer;
    self.seen = ring->reader.index.load(std::memory_order_acquire);  // the write index may pass what was seen before
    const int write = self.index.load(std::memory_order_relaxed);
    self.index.store(advanced(write, n, ring->size), std::memory_order_release);
}

void rngPutAhead(zelRingId ring, char byte, int offset) {
    const int write = ring->writer.index.load(std::memory_order_relaxed);
    ring->bytes[advanced(write, offset, ring->size)] = byte;
}
