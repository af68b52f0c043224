// One search, compiled for several kinds of processor, of which the first constructor of the process chooses. What
// differs is how the 16 lanes of a block are compared; each way answers with a bit for every lane.
#include "platform/column_search.h"

#include <array>
#include <bit>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#define COLUMN_HAS_X86 1
#include <immintrin.h>
#else
#define COLUMN_HAS_X86 0
#endif

namespace zel::platform {
namespace {

// Of one block.
constexpr std::size_t wordBytes = columnLanes * sizeof(std::uint32_t), portBytes = columnLanes * sizeof(std::uint16_t),
                      turnedBytes = columnLanes / 8;

// Of so few blocks all is compared: that costs less than a branch that goes now here, now there.
constexpr std::size_t fewBlocks = 4;

[[gnu::always_inline]] inline std::uint32_t laneBits(const std::uint8_t *at) {
    std::uint16_t bits;
    std::memcpy(&bits, at, sizeof bits);
    return bits;
}

// Any processor, for which the compiler makes of these loops what it can.
namespace plain {

inline std::uint32_t equalLanes(const std::uint8_t *masks, const std::uint8_t *values, std::uint32_t word) {
    std::array<std::uint32_t, columnLanes> mask, value;
    std::memcpy(mask.data(), masks, wordBytes);
    std::memcpy(value.data(), values, wordBytes);
    std::uint32_t lanes = 0;
    for (std::size_t i = 0; i < columnLanes; ++i)
        lanes |= static_cast<std::uint32_t>((word & mask[i]) == value[i]) << i;
    return lanes;
}

inline std::uint32_t withinLanes(const std::uint8_t *lows, const std::uint8_t *spans, std::uint16_t port) {
    std::array<std::uint16_t, columnLanes> low, span;
    std::memcpy(low.data(), lows, portBytes);
    std::memcpy(span.data(), spans, portBytes);
    std::uint32_t lanes = 0;
    for (std::size_t i = 0; i < columnLanes; ++i)
        lanes |= static_cast<std::uint32_t>(static_cast<std::uint16_t>(port - low[i]) <= span[i]) << i;
    return lanes;
}

#define COLUMN_NAME "plain"
#define COLUMN_TARGET
#include "platform/column_search.inc"
#undef COLUMN_NAME
#undef COLUMN_TARGET

}  // namespace plain

#if COLUMN_HAS_X86

namespace avx2 {

#define COLUMN_NAME "AVX2"
#define COLUMN_TARGET [[gnu::target("avx2,bmi")]]

COLUMN_TARGET inline __m256i load(const std::uint8_t *at, std::size_t half = 0) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(at) + half);
}

COLUMN_TARGET inline std::uint32_t equalHalf(const std::uint8_t *masks, const std::uint8_t *values, std::uint32_t word,
                                             std::size_t half) {
    const __m256i selected = _mm256_and_si256(load(masks, half), _mm256_set1_epi32(static_cast<int>(word)));
    const __m256i equal = _mm256_cmpeq_epi32(selected, load(values, half));
    return static_cast<std::uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(equal)));
}

COLUMN_TARGET inline std::uint32_t equalLanes(const std::uint8_t *masks, const std::uint8_t *values,
                                              std::uint32_t word) {
    return equalHalf(masks, values, word, 0) | equalHalf(masks, values, word, 1) << 8;
}

COLUMN_TARGET inline std::uint32_t withinLanes(const std::uint8_t *lows, const std::uint8_t *spans,
                                               std::uint16_t port) {
    const __m256i behind = _mm256_sub_epi16(_mm256_set1_epi16(static_cast<short>(port)), load(lows));
    const __m256i within = _mm256_cmpeq_epi16(_mm256_min_epu16(behind, load(spans)), behind);
    const __m128i bytes = _mm_packs_epi16(_mm256_castsi256_si128(within), _mm256_extracti128_si256(within, 1));
    return static_cast<std::uint32_t>(_mm_movemask_epi8(bytes));
}

#include "platform/column_search.inc"
#undef COLUMN_NAME
#undef COLUMN_TARGET

}  // namespace avx2

namespace avx512 {

#define COLUMN_NAME "AVX-512"
#define COLUMN_TARGET [[gnu::target("avx512f,avx512bw,avx512vl,bmi")]]

COLUMN_TARGET inline std::uint32_t equalLanes(const std::uint8_t *masks, const std::uint8_t *values,
                                              std::uint32_t word) {
    const __m512i selected = _mm512_and_si512(_mm512_loadu_si512(masks), _mm512_set1_epi32(static_cast<int>(word)));
    return _mm512_cmpeq_epi32_mask(selected, _mm512_loadu_si512(values));
}

COLUMN_TARGET inline std::uint32_t withinLanes(const std::uint8_t *lows, const std::uint8_t *spans,
                                               std::uint16_t port) {
    const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(lows));
    const __m256i behind = _mm256_sub_epi16(_mm256_set1_epi16(static_cast<short>(port)), low);
    return _mm256_cmple_epu16_mask(behind, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(spans)));
}

#include "platform/column_search.inc"
#undef COLUMN_NAME
#undef COLUMN_TARGET

}  // namespace avx512

#endif

constinit std::array<const ColumnSearches *, 4> available = {&plain::searches};

[[gnu::constructor]] void choose() {
#if COLUMN_HAS_X86
    std::size_t count = 1;
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi")) {
        available[count++] = &avx2::searches;
        if (__builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl"))
            available[count++] = &avx512::searches;
    }
    columnSearches = available[count - 1];
#endif
}

}  // namespace

constinit const ColumnSearches *columnSearches = &plain::searches;

const ColumnSearches *columnSearchesAt(std::size_t index) {
    return index < available.size() ? available[index] : nullptr;
}

}  // namespace zel::platform
