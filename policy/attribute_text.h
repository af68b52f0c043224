// Attributes of routes as the texts that expressions are matched with.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::policy {

// Attribute types.
inline constexpr std::uint32_t asPathType = 1, communitiesType = 2, otherType = 2048;

// Writes the text, without a zero, as far as it fits; how many characters it has. An AS path is a row of segments
// (kind, count, the numbers as words), communities are words, all big-endian; what does not add up ends the text.
std::size_t writeAsPath(const std::uint8_t *attribute, std::size_t length, char *text, std::size_t room);
std::size_t writeCommunities(const std::uint8_t *attribute, std::size_t length, char *text, std::size_t room);

// Room that is enough for the text of any attribute of so many bytes, with a zero.
constexpr std::size_t roomForText(std::size_t length) {
    return length / 4 * 13 + length + 1;
}

}  // namespace zel::policy
