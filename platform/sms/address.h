// Addresses, TS 23.040 9.1.2.5.
#ifndef SMS_ADDRESS_H
#define SMS_ADDRESS_H

#include "sms.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sms {

constexpr std::size_t longest_address_octets = SMS_LONGEST_NUMBER / 2;
constexpr std::uint8_t type_of_address_number = 0x81;

enum class NumberType : std::uint8_t { unknown = 0, international = 1, national = 2, alphanumeric = 5 };

NumberType number_type(std::uint8_t type_of_address);

// "international", "national" or "alphanumeric".
std::string_view type_name(std::uint8_t type_of_address);

// Writes an address of `semi_octets` half octets, SMS_LONGEST_NUMBER at most, as text: digits up to the first filler,
// or a name. `octets` must hold them. Returns 0, or SMS_ERROR_TOO_LONG.
int read_address(std::uint8_t type_of_address, std::size_t semi_octets, std::span<const std::uint8_t> octets,
                 std::span<char> text);

// A number to send to.
struct Number {
    char digits[SMS_NUMBER_SIZE];
    std::size_t length;
    bool plus;
};

// Takes a destination as a person writes it: blanks and dashes skipped, one leading plus sign, digits, '*' and '#'.
// Returns 0, or SMS_ERROR_ADDRESS.
int parse_number(std::string_view text, Number &number);

// Writes the digits as semi-octets, with a filler behind an odd number. Returns the octets written.
std::size_t write_number(const Number &number, std::span<std::uint8_t, longest_address_octets> octets);

} // namespace sms

#endif
