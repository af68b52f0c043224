// Bitmaps of interfaces in few bytes: runs of zero bytes, runs of 0xff and bytes as they are.
//
// The bitmap is read as a row of bytes, most significant byte of each word first, so that the compressed form is the
// same on every host. Lists are sparse or dense in long stretches; so runs are looked for eight bytes at a time, and
// bytes that stand as they are end only where two equal bytes of a run begin, because a shorter run saves nothing.
#include <algorithm>
#include <bit>

#include "zel/ifm.h"

namespace zel::ifm {
namespace {

enum Kind : uint8_t { zeros = 0x00, ones = 0x40, literal = 0x80, kindMask = 0xc0 };

constexpr size_t longestRun = 64;
constexpr uint64_t everyByte = 0x0101010101010101u;
constexpr uint64_t highBits = 0x80 * everyByte;

struct Bytes {
    const uint32_t *words;
    size_t count;

    uint8_t at(size_t i) const { return static_cast<uint8_t>(words[i / 4] >> (24 - i % 4 * 8)); }
    // Eight bytes from `i` on, the first one the most significant; zero bytes behind the end.
    uint64_t eightAt(size_t i) const {
        const uint32_t *word = words + i / 4;
        const uint32_t last[3] = {word[0], i + 4 < count ? word[1] : 0, 0};
        if (i / 4 + 2 >= count / 4) [[unlikely]]
            word = last;
        const uint64_t shift = i % 4 * 8;
        const uint64_t aligned = uint64_t{word[0]} << 32 | word[1];
        return aligned << shift | uint64_t{word[2]} << shift >> 32;
    }
};

size_t firstMarked(uint64_t marks) {
    return static_cast<size_t>(std::countl_zero(marks)) / 8;
}

// Bit 7 of each zero byte.
uint64_t zeroBytes(uint64_t bytes) {
    return ~(((bytes & ~highBits) + ~highBits) | bytes) & highBits;
}

// How many bytes from `from` on equal `value`, which is 0x00 or 0xff: the rest of a word, whole words, part of a word.
size_t runLength(const Bytes &bytes, size_t from, uint8_t value) {
    const uint32_t same = value ? 0xffffffffu : 0;
    size_t word = from / 4;
    uint32_t differing = (bytes.words[word] ^ same) << from % 4 * 8;
    if (differing) return static_cast<size_t>(std::countl_zero(differing)) / 8;
    for (++word; word < bytes.count / 4; ++word)
        if ((differing = bytes.words[word] ^ same) != 0)
            return word * 4 + static_cast<size_t>(std::countl_zero(differing)) / 8 - from;
    return bytes.count - from;
}

// How many bytes from `from` on come before two equal ones of a run, at least one.
size_t literalLength(const Bytes &bytes, size_t from) {
    for (size_t at = from; at < bytes.count; at += 7) {  // the eighth byte is looked at again beside its follower
        const uint64_t eight = bytes.eightAt(at);
        const uint64_t zero = zeroBytes(eight), one = zeroBytes(~eight);
        const size_t pair = firstMarked((zero & zero << 8) | (one & one << 8));
        if (pair < 7 && at + pair + 1 < bytes.count) return std::max<size_t>(at + pair - from, 1);
    }
    return bytes.count - from;
}

class Writer {
public:
    Writer(uint8_t *out, size_t size) : out_(out), size_(size) {}

    void run(Kind kind, size_t length) {
        for (; length > longestRun; length -= longestRun) put(static_cast<uint8_t>(kind | (longestRun - 1)));
        put(static_cast<uint8_t>(kind | (length - 1)));
    }
    void literals(const Bytes &bytes, size_t from, size_t length) {
        for (size_t end = from + length; from < end;) {
            const size_t piece = std::min(end - from, longestRun);
            put(static_cast<uint8_t>(literal | (piece - 1)));
            if (used_ + piece <= size_)
                for (size_t i = 0; i < piece; ++i) out_[used_ + i] = bytes.at(from + i);
            used_ += piece;
            from += piece;
        }
    }
    int result() const { return used_ <= size_ ? static_cast<int>(used_) : IFM_ERR_SIZE; }

private:
    void put(uint8_t byte) {
        if (used_ < size_) out_[used_] = byte;
        ++used_;
    }

    uint8_t *out_;
    size_t size_;
    size_t used_ = 0;
};

size_t byteCount(uint32_t bits) {
    return (size_t{bits} + 31) / 32 * 4;
}

void storeByte(uint32_t *bitmap, size_t i, uint8_t byte) {
    const uint32_t shift = 24 - i % 4 * 8;
    bitmap[i / 4] = (bitmap[i / 4] & ~(0xffu << shift)) | uint32_t{byte} << shift;
}

}  // namespace
}  // namespace zel::ifm

using namespace zel::ifm;

int ifmBitmapCompress(const uint32_t *bitmap, uint32_t bits, uint8_t *out, size_t size) {
    if (!bitmap || (!out && size > 0)) return IFM_ERROR;
    const Bytes bytes = {bitmap, byteCount(bits)};
    Writer writer(out, size);
    for (size_t at = 0; at < bytes.count;) {
        const uint8_t first = bytes.at(at);
        const bool isRun = first == 0x00 || first == 0xff;
        const size_t length = isRun ? runLength(bytes, at, first) : 1;
        if (isRun && (length > 1 || at + 1 == bytes.count)) {
            writer.run(first ? ones : zeros, length);
            at += length;
        } else {
            const size_t end = literalLength(bytes, at);
            writer.literals(bytes, at, end);
            at += end;
        }
    }
    return writer.result();
}

int ifmBitmapUncompress(const uint8_t *in, size_t length, uint32_t *bitmap, uint32_t bits) {
    if (!in || !bitmap) return IFM_ERROR;
    const size_t count = byteCount(bits);
    size_t at = 0;
    for (const uint8_t *const end = in + length; in < end;) {
        const uint8_t kind = *in & kindMask;
        const size_t run = (*in++ & ~kindMask & 0xff) + size_t{1};
        const bool isLiteral = kind == literal;
        if (kind == kindMask || run > count - at) return IFM_ERR_FORMAT;
        if (isLiteral && run > static_cast<size_t>(end - in)) return IFM_ERR_FORMAT;
        for (size_t i = 0; i < run; ++i)
            storeByte(bitmap, at++, isLiteral ? *in++ : static_cast<uint8_t>(kind == ones ? 0xff : 0x00));
    }
    return at == count ? IFM_OK : IFM_ERR_FORMAT;
}
