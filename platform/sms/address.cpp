#include "address.h"

#include "septets.h"
#include "text.h"

namespace sms {

namespace {

constexpr std::string_view semi_octet_digits = "0123456789*#abc";
constexpr std::string_view sendable_digits = {semi_octet_digits.data(), 12};
constexpr std::uint8_t filler = 0x0F;

void read_digits(std::size_t semi_octets, std::span<const std::uint8_t> octets, Utf8Writer &writer)
{
    for (std::size_t i = 0; i < semi_octets; ++i) {
        const unsigned digit = octets[i / 2] >> (i % 2 * 4) & 0x0Fu;
        if (digit == filler) {
            return;
        }
        writer.put(static_cast<unsigned char>(semi_octet_digits[digit]));
    }
}

void read_name(std::size_t semi_octets, std::span<const std::uint8_t> octets, Utf8Writer &writer)
{
    std::uint8_t septets[SMS_LONGEST_NUMBER * 4 / 7];
    const std::span name = std::span(septets).first(semi_octets * 4 / 7);
    unpack_septets(octets, 0, name);
    write_septets(name, {}, writer);
}

} // namespace

NumberType number_type(std::uint8_t type_of_address)
{
    return static_cast<NumberType>(type_of_address >> 4 & 7);
}

std::string_view type_name(std::uint8_t type_of_address)
{
    switch (number_type(type_of_address)) {
    case NumberType::international:
        return "international";
    case NumberType::alphanumeric:
        return "alphanumeric";
    default:
        return "national";
    }
}

int read_address(std::uint8_t type_of_address, std::size_t semi_octets, std::span<const std::uint8_t> octets,
                 std::span<char> text)
{
    Utf8Writer writer(text);
    if (number_type(type_of_address) == NumberType::alphanumeric) {
        read_name(semi_octets, octets, writer);
    } else {
        read_digits(semi_octets, octets, writer);
    }
    return writer.finish() < 0 ? SMS_ERROR_TOO_LONG : 0;
}

int parse_number(std::string_view text, Number &number)
{
    number = {};
    for (const char character : text) {
        if (character == ' ' || character == '-') {
            continue;
        }
        if (character == '+' && !number.plus && number.length == 0) {
            number.plus = true;
            continue;
        }
        if (sendable_digits.find(character) == std::string_view::npos || number.length == SMS_LONGEST_NUMBER) {
            return SMS_ERROR_ADDRESS;
        }
        number.digits[number.length++] = character;
    }
    return number.length == 0 ? SMS_ERROR_ADDRESS : 0;
}

std::size_t write_number(const Number &number, std::span<std::uint8_t, longest_address_octets> octets)
{
    for (std::size_t i = 0; i < number.length; i += 2) {
        const std::size_t low = semi_octet_digits.find(number.digits[i]);
        const std::size_t high = i + 1 < number.length ? semi_octet_digits.find(number.digits[i + 1]) : filler;
        octets[i / 2] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return (number.length + 1) / 2;
}

} // namespace sms
