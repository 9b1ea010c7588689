#include "user_data_header.h"

#include "hexadecimal.h"

namespace sms {

namespace {

struct Element {
    std::uint8_t identifier;
    std::span<const std::uint8_t> data;
};

// The octets of "05 00 03", or none when the text is anything else.
std::span<const std::uint8_t> read_text(std::string_view text, std::span<std::uint8_t> octets)
{
    std::size_t count = 0;
    while (text.size() >= 2) {
        const int high = digit_value(text[0]);
        const int low = digit_value(text[1]);
        if (high < 0 || low < 0 || count == octets.size() || (text.size() > 2 && text[2] != ' ')) {
            return {};
        }
        octets[count++] = static_cast<std::uint8_t>(high << 4 | low);
        text.remove_prefix(text.size() > 2 ? 3 : 2);
    }
    return text.empty() ? octets.first(count) : octets.first(0);
}

bool take_element(std::span<const std::uint8_t> &rest, Element &element)
{
    if (rest.size() < 2 || rest.size() - 2 < rest[1]) {
        return false;
    }
    element = {rest[0], rest.subspan(2, rest[1])};
    rest = rest.subspan(2u + rest[1]);
    return true;
}

} // namespace

Languages languages_of(std::string_view header_text)
{
    std::uint8_t octets[longest_header];
    const std::span<const std::uint8_t> header = read_text(header_text, octets);
    if (header.empty() || header[0] != header.size() - 1) {
        return {};
    }
    Languages languages;
    std::span<const std::uint8_t> rest = header.subspan(1);
    while (!rest.empty()) {
        Element element{};
        if (!take_element(rest, element)) {
            return {};
        }
        if (element.data.size() != 1) {
            continue;
        }
        if (element.identifier == element_single_shift) {
            languages.single_shift = element.data[0];
        } else if (element.identifier == element_locking_shift) {
            languages.locking = element.data[0];
        }
    }
    return languages;
}

} // namespace sms
