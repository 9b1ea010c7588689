#include "hexadecimal.h"

#include "sms.h"

namespace sms {

namespace {

constexpr std::string_view blanks = " \t\r\n\v\f";

std::string_view trimmed(std::string_view line)
{
    while (!line.empty() && blanks.find(line.front()) != std::string_view::npos) {
        line.remove_prefix(1);
    }
    while (!line.empty() && blanks.find(line.back()) != std::string_view::npos) {
        line.remove_suffix(1);
    }
    return line;
}

} // namespace

int digit_value(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    return -1;
}

char digit_of(unsigned value)
{
    return "0123456789ABCDEF"[value & 0x0F];
}

int octets_from_text(std::string_view line, std::span<std::uint8_t> octets)
{
    line = trimmed(line);
    if (line.empty() || line.size() % 2 != 0) {
        return SMS_ERROR_HEXADECIMAL;
    }
    std::size_t count = 0;
    for (std::size_t i = 0; i < line.size(); i += 2) {
        const int high = digit_value(line[i]);
        const int low = digit_value(line[i + 1]);
        if (high < 0 || low < 0) {
            return SMS_ERROR_HEXADECIMAL;
        }
        if (count < octets.size()) {
            octets[count++] = static_cast<std::uint8_t>(high << 4 | low);
        }
    }
    return static_cast<int>(count);
}

void text_from_octets(std::span<const std::uint8_t> octets, char separator, char *text)
{
    for (std::size_t i = 0; i < octets.size(); ++i) {
        if (i > 0 && separator != 0) {
            *text++ = separator;
        }
        *text++ = digit_of(octets[i] >> 4);
        *text++ = digit_of(octets[i]);
    }
    *text = 0;
}

} // namespace sms
