// UTF-8 (RFC 3629), in and out.
#ifndef SMS_UTF8_H
#define SMS_UTF8_H

#include <cstddef>
#include <span>
#include <string_view>

namespace sms {

constexpr char32_t replacement_character = 0xFFFD;
constexpr char32_t no_character = 0xFFFFFFFF;

constexpr bool is_high_surrogate(char32_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

constexpr bool is_low_surrogate(char32_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// Takes the first character off `text`, which must not be empty. Returns no_character for an invalid sequence (too long
// a form, a surrogate, a value beyond U+10FFFF, a missing byte) and then takes one byte off.
char32_t take_character(std::string_view &text);

// Writes characters into a buffer that it never overruns. A character that does not fit is not written, nor is any
// behind it.
class Utf8Writer {
public:
    explicit Utf8Writer(std::span<char> destination) : buffer(destination) {}
    void put(char32_t character);
    // Ends the text with a zero. Returns its length, or SMS_ERROR_TOO_LONG after emptying the buffer.
    int finish();

private:
    std::span<char> buffer;
    std::size_t used = 0;
    bool overflowed = false;
};

} // namespace sms

#endif
