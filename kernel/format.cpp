#include "kernel/format.h"

#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace zel::kernel {
namespace {

// Every call says whether it succeeded.
class Output {
public:
    Output(char *to, std::size_t room) : begin_(to), at_(to), end_(to + room) {}

    bool put(const char *text, std::size_t length) {
        if (length > static_cast<std::size_t>(end_ - at_)) return false;
        memcpy(at_, text, length);
        at_ += length;
        return true;
    }

    bool putText(const char *text) {
        if (text == nullptr) text = "(null)";
        return put(text, strlen(text));
    }

    // A NUL would end the text: that is for the caller to sort out.
    bool putCharacter(int value) {
        const char character = static_cast<char>(value);
        return character != '\0' && put(&character, 1);
    }

    template <class T>
    bool putNumber(T value, int base = 10) {
        const auto [next, error] = std::to_chars(at_, end_, value, base);
        if (error != std::errc()) return false;
        at_ = next;
        return true;
    }

    std::size_t length() const { return static_cast<std::size_t>(at_ - begin_); }

private:
    char *begin_;
    char *at_;
    char *end_;
};

// A number of type T, signed; `conversion` says how to show it.
template <class T>
bool putInteger(Output &out, char conversion, T value) {
    switch (conversion) {
        case 'd':
        case 'i':
            return out.putNumber(value);
        case 'u':
            return out.putNumber(static_cast<std::make_unsigned_t<T>>(value));
        case 'x':
            return out.putNumber(static_cast<std::make_unsigned_t<T>>(value), 16);
        default:
            return false;
    }
}

}  // namespace

std::optional<std::size_t> formatSimply(char *to, std::size_t room, const char *format, va_list args) {
    Output out(to, room);
    for (;;) {
        const char *percent = strchrnul(format, '%');
        if (!out.put(format, static_cast<std::size_t>(percent - format))) return std::nullopt;
        if (*percent == '\0') return out.length();
        bool isDone = false;
        format = percent + 2;
        switch (percent[1]) {
            case 's':
                isDone = out.putText(va_arg(args, const char *));
                break;
            case 'c':
                isDone = out.putCharacter(va_arg(args, int));
                break;
            case '%':
                isDone = out.putCharacter('%');
                break;
            case 'z':
                isDone = putInteger(out, *format++, va_arg(args, std::make_signed_t<std::size_t>));
                break;
            case 'l':
                isDone = *format == 'l' ? putInteger(out, *++format, va_arg(args, long long))
                                        : putInteger(out, *format, va_arg(args, long));
                ++format;
                break;
            default:
                isDone = percent[1] != '\0' && putInteger(out, percent[1], va_arg(args, int));
        }
        if (!isDone) return std::nullopt;
    }
}

}  // namespace zel::kernel
