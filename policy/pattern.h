// Patterns as operators write them: what an underscore stands for, and what is refused before anything compiles them.
//
// Patterns come from configurations and from shared memory, and the C library's compiler does not bound itself: it
// writes intervals out, and "+" as two copies of what it repeats, so that a pattern of 50 characters can take all
// memory; and its matcher may never return, or crash, where references back to groups are repeated. What is refused
// here is refused without asking it: what goes beyond the limits below; references to more than one group, and repeated
// ones to a group that may be empty or is repeated itself; and repetitions of what may read nothing but look for the
// boundary of a word: the compiler goes through their anchors in all orders, and with five kinds it takes for ever.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::policy {

constexpr std::size_t longestPattern = 1024;       // as written
constexpr std::uint32_t deepestGroup = 100;        // parentheses within parentheses, those of underscores too
constexpr std::uint32_t mostRepetitions = 10'000;  // product of the bounds of nested intervals; "+" counts as 2
constexpr std::uint32_t mostPlaces = 20'000;       // characters, sets and anchors, intervals written out
// What may be passed over without reading a character, at any one place. Memory grows with its square at least, with
// anchors in it with the cube, and time doubles with every anchor in a repetition of what may be empty: so an anchor
// counts as 25, and what such a repetition repeats five times.
constexpr std::uint32_t mostPassedOver = 2'000;
constexpr std::uint32_t anchorPassedOver = 25;
constexpr std::uint32_t emptyLoopPassedOver = 5;

// What every underscore stands for, also an escaped one and one in brackets: start, end, or a separator.
constexpr char underscoreMeaning[] = "(^|[,{}() ]|$)";

// The pattern with its underscores replaced, at most longestPattern characters of it; the caller gives it to
// zelMC_free. Null: no memory.
char *expandUnderscores(const char *pattern);

// Whether the pattern as written keeps to that; if not, why, in English without a full stop, in `error`.
bool checkPattern(const char *pattern, char *error, std::size_t errorBytes);

}  // namespace zel::policy
