// What a route carries in its TLV area here: AS path and communities, each as u16 type, u16 length and the value, all
// big-endian. The AS path is a row of segments (u8 kind, u8 count, the numbers as u32); communities are u32 words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zel/rtm.h"

namespace zel::programs {

struct Attributes {
    std::uint8_t bytes[ZEL_RTM_MAX_TLV];
    std::uint16_t length = 0;
    unsigned communitiesCut = 0;  // that found no room
    unsigned numbersCut = 0;      // of the AS path
};

// From the texts "1273 {3,4} (65001 65002)" and "701:120 65535:65281"; false when they cannot be read.
bool encodeAttributes(std::string_view asPath, std::string_view communities, Attributes &attributes);

struct AttributeTexts {
    std::string asPath;
    std::string communities;
};
AttributeTexts decodeAttributes(const std::uint8_t *bytes, std::size_t length);

}  // namespace zel::programs
