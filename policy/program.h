// A pattern's tree as a program that a text runs through, all ways at once.
#pragma once

#include <cstdint>

#include "policy/pattern_tree.h"

namespace zel::policy {

enum class Operation : std::uint8_t { bytes, begin, end, split, match };

struct Instruction {
    Operation operation;
    std::uint16_t symbol;       // bytes
    std::uint16_t next, other;  // split goes to both
};

struct Program {
    static constexpr unsigned capacity = 4096;

    // The program of the tree; null when it has no room, or without memory. destroy takes null too.
    static Program *compile(const PatternTree &tree);
    static void destroy(Program *program);

    std::uint16_t start;
    std::uint16_t count;
    Instruction code[capacity];
};

}  // namespace zel::policy
