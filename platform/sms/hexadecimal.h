// Octets and hexadecimal text.
#ifndef SMS_HEXADECIMAL_H
#define SMS_HEXADECIMAL_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sms {

// The value of a hexadecimal digit of either case, or -1.
int digit_value(char digit);

// The upper-case digit of a value from 0 to 15.
char digit_of(unsigned value);

// Reads a line of hexadecimal digits; blanks and line ends around it are ignored. The whole line is checked, octets
// that do not fit are dropped. Returns the number of octets kept, or SMS_ERROR_HEXADECIMAL.
int octets_from_text(std::string_view line, std::span<std::uint8_t> octets);

// Writes octets as upper-case digits and a terminating zero, each octet followed by `separator` but the last (none when
// it is 0). `text` must hold two or three characters an octet and the zero.
void text_from_octets(std::span<const std::uint8_t> octets, char separator, char *text);

} // namespace sms

#endif
