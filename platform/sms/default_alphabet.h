// The GSM 7-bit default alphabet and its extension, TS 23.038 6.2.1.
#ifndef SMS_DEFAULT_ALPHABET_H
#define SMS_DEFAULT_ALPHABET_H

#include <cstdint>
#include <string_view>

namespace sms {

constexpr std::uint8_t escape_septet = 0x1B;

// What stands in a table where it has no character of its own.
constexpr char16_t empty_position = 0xFFFF;

// The character at each septet of the default alphabet; the escape's position is empty.
extern const char16_t default_table[129];

// A character of an extension table, called by the escape and a septet.
struct Extension {
    std::uint8_t septet;
    char16_t character;
};

// The character that the default extension table has for a septet, or empty_position.
char16_t default_extension(std::uint8_t septet);

// How a character is written in the default alphabet: its septet, with 0x80 added when the escape goes before it, or
// -1.
constexpr int extended = 0x80;
int septet_of(char32_t character);

} // namespace sms

#endif
