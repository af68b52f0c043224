#include "platform/arguments.h"

#include <cstdint>
#include <cstring>

namespace zel::platform {
namespace {

struct Block {
    char *begin = nullptr;
    char *end = nullptr;
};
constinit Block block;

char noText[1] = "";

// The C library hands main's arguments to the initialisers of shared objects and programs alike.
[[gnu::constructor]] void noteArguments(int argc, char **argv, char **) {
    if (argc <= 0 || !argv || !argv[0] || !argv[argc - 1]) return;
    block = {argv[0], argv[argc - 1] + strlen(argv[argc - 1]) + 1};
}

bool isInBlock(const char *text) {
    const auto at = reinterpret_cast<std::uintptr_t>(text);
    return at >= reinterpret_cast<std::uintptr_t>(block.begin) && at < reinterpret_cast<std::uintptr_t>(block.end);
}

}  // namespace

void blankArgument(char *&argument) {
    if (!argument) return;
    if (isInBlock(argument)) memset(argument, 0, strlen(argument));
    argument = noText;
}

}  // namespace zel::platform
