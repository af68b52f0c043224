#include "programs/support/attributes.h"

#include <charconv>
#include <cstring>

namespace zel::programs {
namespace {

constexpr std::uint16_t asPathType = 1;
constexpr std::uint16_t communitiesType = 2;
constexpr std::size_t headSize = 4;
constexpr std::size_t segmentHeadSize = 2;
constexpr std::size_t wordSize = 4;
constexpr std::uint8_t mostInSegment = 255;

// Kinds of segments with the marks around and between their numbers.
struct Segment {
    std::uint8_t kind;
    char open;
    char close;
    char between;
};
constexpr Segment segments[] = {{1, '{', '}', ','}, {2, '\0', '\0', ' '}, {3, '(', ')', ' '}, {4, '[', ']', ','}};
constexpr const Segment &plain = segments[1];

const Segment &segmentOpenedBy(char mark) {
    for (const Segment &segment : segments)
        if (segment.open == mark) return segment;
    return plain;
}

void put16(std::uint8_t *at, std::size_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

void put32(std::uint8_t *at, std::uint32_t value) {
    put16(at, value >> 16);
    put16(at + 2, value & 0xffff);
}

std::size_t get16(const std::uint8_t *at) {
    return static_cast<std::size_t>(at[0]) << 8 | at[1];
}

std::uint32_t get32(const std::uint8_t *at) {
    return static_cast<std::uint32_t>(get16(at) << 16 | get16(at + 2));
}

// Takes a decimal number off the front of `text`.
bool takeNumber(std::string_view &text, std::uint32_t &value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

// Writes the value of the path at `at`; false for a text that is none.
class PathWriter {
public:
    PathWriter(Attributes &attributes, std::size_t begin) : attributes_(attributes), at_(begin) {}

    bool write(std::string_view text) {
        const Segment *segment = &plain;
        while (!text.empty()) {
            const char mark = text.front();
            if (mark >= '0' && mark <= '9') {
                std::uint32_t number = 0;
                if (!takeNumber(text, number)) return false;
                add(segment->kind, number);
                continue;
            }
            if (mark == '{' || mark == '(' || mark == '[') {
                segment = &segmentOpenedBy(mark);
                head_ = 0;
            } else if (segment != &plain && mark == segment->close) {
                segment = &plain;
                head_ = 0;
            } else if (mark != ' ' && mark != ',') {
                return false;
            }
            text.remove_prefix(1);
        }
        return segment == &plain;
    }

    std::size_t end() const { return at_; }

private:
    void add(std::uint8_t kind, std::uint32_t number) {
        const bool opens = head_ == 0 || attributes_.bytes[head_ + 1] == mostInSegment;
        const std::size_t needs = wordSize + (opens ? segmentHeadSize : 0);
        if (attributes_.numbersCut > 0 || at_ + needs > sizeof attributes_.bytes) {
            ++attributes_.numbersCut;
            return;
        }
        if (opens) {
            head_ = at_;
            attributes_.bytes[at_] = kind;
            attributes_.bytes[at_ + 1] = 0;
            at_ += segmentHeadSize;
        }
        ++attributes_.bytes[head_ + 1];
        put32(attributes_.bytes + at_, number);
        at_ += wordSize;
    }

    Attributes &attributes_;
    std::size_t at_;
    std::size_t head_ = 0;  // of the open segment; 0: none
};

bool writePath(std::string_view text, Attributes &attributes) {
    if (text.empty()) return true;
    PathWriter writer(attributes, headSize);
    if (!writer.write(text)) return false;
    put16(attributes.bytes, asPathType);
    put16(attributes.bytes + 2, writer.end() - headSize);
    attributes.length = static_cast<std::uint16_t>(writer.end());
    return true;
}

bool writeCommunities(std::string_view text, Attributes &attributes) {
    const std::size_t begin = attributes.length;
    std::size_t at = begin + headSize;
    while (!text.empty()) {
        std::uint32_t high = 0, low = 0;
        if (!takeNumber(text, high) || text.empty() || text.front() != ':') return false;
        text.remove_prefix(1);
        if (!takeNumber(text, low) || high > 0xffff || low > 0xffff) return false;
        if (!text.empty()) text.remove_prefix(1);
        if (at + wordSize > sizeof attributes.bytes) {
            ++attributes.communitiesCut;
            continue;
        }
        put32(attributes.bytes + at, high << 16 | low);
        at += wordSize;
    }
    if (at == begin + headSize) return true;
    put16(attributes.bytes + begin, communitiesType);
    put16(attributes.bytes + begin + 2, at - begin - headSize);
    attributes.length = static_cast<std::uint16_t>(at);
    return true;
}

std::string pathText(const std::uint8_t *at, std::size_t length) {
    std::string text;
    while (length >= segmentHeadSize) {
        const std::size_t size = segmentHeadSize + at[1] * wordSize;
        if (size > length) break;
        const Segment *segment = &plain;
        for (const Segment &candidate : segments)
            if (candidate.kind == at[0]) segment = &candidate;
        if (!text.empty()) text += ' ';
        if (segment->open) text += segment->open;
        for (unsigned i = 0; i < at[1]; ++i) {
            if (i > 0) text += segment->between;
            text += std::to_string(get32(at + segmentHeadSize + i * wordSize));
        }
        if (segment->close) text += segment->close;
        at += size;
        length -= size;
    }
    return text;
}

std::string communityText(const std::uint8_t *at, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i + wordSize <= length; i += wordSize) {
        if (!text.empty()) text += ' ';
        text += std::to_string(get16(at + i)) + ":" + std::to_string(get16(at + i + 2));
    }
    return text;
}

}  // namespace

bool encodeAttributes(std::string_view asPath, std::string_view communities, Attributes &attributes) {
    attributes.length = 0;
    attributes.communitiesCut = attributes.numbersCut = 0;
    return writePath(asPath, attributes) && writeCommunities(communities, attributes);
}

AttributeTexts decodeAttributes(const std::uint8_t *bytes, std::size_t length) {
    AttributeTexts texts;
    while (length >= headSize) {
        const std::size_t type = get16(bytes), size = get16(bytes + 2);
        if (headSize + size > length) break;
        if (type == asPathType) texts.asPath = pathText(bytes + headSize, size);
        if (type == communitiesType) texts.communities = communityText(bytes + headSize, size);
        bytes += headSize + size;
        length -= headSize + size;
    }
    return texts;
}

}  // namespace zel::programs
