#include "policy/attribute_text.h"

#include <charconv>
#include <cstring>

#include "base/wire.h"

namespace zel::policy {
namespace {

constexpr std::size_t wordBytes = 4, segmentHeadBytes = 2;

// Kinds of segments of a path, by their number, with the marks around and between their members.
struct Segment {
    char open, close, between;
};
constexpr Segment segments[] = {{}, {'{', '}', ','}, {0, 0, ' '}, {'(', ')', ' '}, {'[', ']', ','}};

struct WellKnown {
    std::uint32_t value;
    const char *name;
};
constexpr WellKnown wellKnown[] = {{0xffffff01, "no-export"}, {0xffffff02, "no-advertise"}, {0xffffff03, "local-AS"}};

class Writer {
public:
    Writer(char *text, std::size_t room) : text_(text), room_(room) {}
    std::size_t size() const { return size_; }

    void put(char mark) {
        if (size_ < room_) text_[size_] = mark;
        ++size_;
    }
    void put(const char *word) {
        while (*word) put(*word++);
    }
    void put(std::uint32_t number) {
        char digits[10] = {};
        const char *end = std::to_chars(digits, digits + sizeof digits, number).ptr;
        for (const char *digit = digits; digit < end; ++digit) put(*digit);
    }

private:
    char *text_;
    std::size_t room_;
    std::size_t size_ = 0;
};

void putSegment(Writer &writer, const Segment &segment, const std::uint8_t *numbers, std::size_t count) {
    if (writer.size() > 0) writer.put(' ');
    if (segment.open) writer.put(segment.open);
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) writer.put(segment.between);
        writer.put(wire::load<std::uint32_t>(numbers + i * wordBytes));
    }
    if (segment.close) writer.put(segment.close);
}

void putCommunity(Writer &writer, std::uint32_t value) {
    for (const WellKnown &known : wellKnown)
        if (known.value == value) return writer.put(known.name);
    writer.put(value >> 16);
    writer.put(':');
    writer.put(value & 0xffff);
}

}  // namespace

std::size_t writeAsPath(const std::uint8_t *attribute, std::size_t length, char *text, std::size_t room) {
    Writer writer(text, room);
    while (length >= segmentHeadBytes) {
        const std::size_t kind = attribute[0], count = attribute[1], bytes = segmentHeadBytes + count * wordBytes;
        if (kind == 0 || kind >= sizeof segments / sizeof *segments || bytes > length) break;
        putSegment(writer, segments[kind], attribute + segmentHeadBytes, count);
        attribute += bytes;
        length -= bytes;
    }
    return writer.size();
}

std::size_t writeCommunities(const std::uint8_t *attribute, std::size_t length, char *text, std::size_t room) {
    Writer writer(text, room);
    for (std::size_t at = 0; at + wordBytes <= length; at += wordBytes) {
        if (at > 0) writer.put(' ');
        putCommunity(writer, wire::load<std::uint32_t>(attribute + at));
    }
    return writer.size();
}

}  // namespace zel::policy
