#include "sms_deliver.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fmt/format.h>
#include <stdexcept>

namespace modemsim {

namespace {

constexpr uint8_t escape = 0x1B;

// 3GPP TS 23.038 6.2.1; 0xFFFF stands at the place of the escape.
constexpr std::array<uint16_t, 128> basic = {
    0x40,  0xA3, 0x24,  0xA5,  0xE8,  0xE9,  0xF9,  0xEC,  0xF2,  0xC7,  0x0A,  0xD8,   0xF8, 0x0D, 0xC5, 0xE5,
    0x394, 0x5F, 0x3A6, 0x393, 0x39B, 0x3A9, 0x3A0, 0x3A8, 0x3A3, 0x398, 0x39E, 0xFFFF, 0xC6, 0xE6, 0xDF, 0xC9,
    0x20,  0x21, 0x22,  0x23,  0xA4,  0x25,  0x26,  0x27,  0x28,  0x29,  0x2A,  0x2B,   0x2C, 0x2D, 0x2E, 0x2F,
    0x30,  0x31, 0x32,  0x33,  0x34,  0x35,  0x36,  0x37,  0x38,  0x39,  0x3A,  0x3B,   0x3C, 0x3D, 0x3E, 0x3F,
    0xA1,  0x41, 0x42,  0x43,  0x44,  0x45,  0x46,  0x47,  0x48,  0x49,  0x4A,  0x4B,   0x4C, 0x4D, 0x4E, 0x4F,
    0x50,  0x51, 0x52,  0x53,  0x54,  0x55,  0x56,  0x57,  0x58,  0x59,  0x5A,  0xC4,   0xD6, 0xD1, 0xDC, 0xA7,
    0xBF,  0x61, 0x62,  0x63,  0x64,  0x65,  0x66,  0x67,  0x68,  0x69,  0x6A,  0x6B,   0x6C, 0x6D, 0x6E, 0x6F,
    0x70,  0x71, 0x72,  0x73,  0x74,  0x75,  0x76,  0x77,  0x78,  0x79,  0x7A,  0xE4,   0xF6, 0xF1, 0xFC, 0xE0,
};

constexpr std::pair<uint16_t, uint8_t> extension[] = {
    {0x0C, 0x0A}, {0x5E, 0x14}, {0x7B, 0x28}, {0x7D, 0x29}, {0x5C, 0x2F},
    {0x5B, 0x3C}, {0x7E, 0x3D}, {0x5D, 0x3E}, {0x7C, 0x40}, {0x20AC, 0x65},
};

std::vector<uint32_t> code_points(std::string_view utf8)
{
    std::vector<uint32_t> points;
    for (size_t i = 0; i < utf8.size();) {
        auto lead = static_cast<uint8_t>(utf8[i++]);
        size_t more = lead < 0x80 ? 0 : lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC2 ? 1 : 9;
        uint32_t point = lead < 0x80 ? lead : more == 3 ? lead & 0x07U : more == 2 ? lead & 0x0FU : lead & 0x1FU;
        bool good = more != 9 && i + more <= utf8.size();
        for (size_t k = 0; good && k < more; k++) {
            auto next = static_cast<uint8_t>(utf8[i + k]);
            good = (next & 0xC0) == 0x80;
            point = point << 6 | (next & 0x3FU);
        }
        good = good && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
        points.push_back(good ? point : '?');
        i += good ? more : 0;
    }
    return points;
}

std::vector<uint16_t> utf16(std::string_view utf8)
{
    std::vector<uint16_t> units;
    for (uint32_t point : code_points(utf8)) {
        if (point < 0x10000) {
            units.push_back(static_cast<uint16_t>(point));
            continue;
        }
        units.push_back(static_cast<uint16_t>(0xD800 + ((point - 0x10000) >> 10)));
        units.push_back(static_cast<uint16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
    }
    return units;
}

/// Cuts into parts of at most `size` units; `joined` tells whether a unit belongs to the one behind it.
template<typename Unit, typename Joined>
std::vector<std::vector<Unit>> cut(const std::vector<Unit> &units, size_t size, Joined joined)
{
    std::vector<std::vector<Unit>> parts;
    for (size_t from = 0; from < units.size();) {
        size_t end = std::min(from + size, units.size());
        if (end < units.size() && joined(units[end - 1]))
            end--;
        parts.emplace_back(units.begin() + static_cast<std::ptrdiff_t>(from),
                           units.begin() + static_cast<std::ptrdiff_t>(end));
        from = end;
    }
    return parts;
}

bool is_number(std::string_view text)
{
    if (text.starts_with('+'))
        text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789*#") == text.npos;
}

/// Half-octets with the first digit low (3GPP TS 23.040 9.1.2.3).
std::string semi_octets(std::string_view digits)
{
    std::string text;
    for (size_t i = 0; i < digits.size(); i += 2) {
        auto half = [&](size_t at) {
            return at >= digits.size() ? 'F' : digits[at] == '*' ? 'A' : digits[at] == '#' ? 'B' : digits[at];
        };
        text += half(i + 1);
        text += half(i);
    }
    return text;
}

std::string hex(const std::vector<uint8_t> &octets)
{
    std::string text;
    for (uint8_t octet : octets)
        text += fmt::format("{:02X}", octet);
    return text;
}

std::string centre_address(std::string number)
{
    if (number.empty())
        return "00";
    bool international = number.starts_with('+');
    std::string digits = semi_octets(number.substr(international ? 1 : 0));
    return fmt::format("{:02X}{}{}", digits.size() / 2 + 1, international ? "91" : "81", digits);
}

std::string originating_address(const std::string &from)
{
    if (is_number(from)) {
        bool international = from.starts_with('+');
        std::string digits = from.substr(international ? 1 : 0);
        if (digits.size() > 20)
            throw std::invalid_argument("the sender's number is longer than 20 digits");
        return fmt::format("{:02X}{}{}", digits.size(), international ? "91" : "81", semi_octets(digits));
    }
    auto septets = default_alphabet(from);
    if (!septets || septets->empty() || septets->size() > 11)
        throw std::invalid_argument("the sender is no number and no name of 1 to 11 characters");
    std::vector<uint8_t> octets = pack_septets(*septets, 0);
    size_t useful_half_octets = (septets->size() * 7 + 3) / 4;
    return fmt::format("{:02X}D0{}", useful_half_octets, hex(octets));
}

std::string time_stamp(const std::string &time)
{
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    char more = 0;
    if (time.size() != 17 || std::sscanf(time.c_str(), "%2d-%2d-%2d %2d:%2d:%2d%c", &year, &month, &day, &hour, &minute,
                                         &second, &more) != 6)
        throw std::invalid_argument("the time is not YY-MM-DD hh:mm:ss");
    return semi_octets(fmt::format("{:02}{:02}{:02}{:02}{:02}{:02}00", year, month, day, hour, minute, second));
}

std::vector<uint8_t> header(const Deliver &message, size_t total, size_t index)
{
    if (total == 1)
        return {};
    auto count = static_cast<uint8_t>(total);
    auto number = static_cast<uint8_t>(index + 1);
    auto low = static_cast<uint8_t>(message.reference & 0xFF);
    if (message.wide_reference)
        return {6, 8, 4, static_cast<uint8_t>(message.reference >> 8 & 0xFF), low, count, number};
    return {5, 0, 3, low, count, number};
}

std::string frame_part(const Deliver &message, size_t total, int coding, size_t length, const std::string &data)
{
    return fmt::format("{}{}{}00{:02X}{}{:02X}{}", centre_address(message.centre), total > 1 ? "44" : "04",
                       originating_address(message.from), coding, time_stamp(message.time), length, data);
}

std::vector<std::string> default_parts(const Deliver &message, const std::vector<uint8_t> &septets)
{
    size_t share = message.wide_reference ? 152 : 153;
    auto parts = cut(septets, septets.size() <= 160 ? 160 : share, [](uint8_t unit) { return unit == escape; });
    if (parts.empty())
        parts.emplace_back();
    std::vector<std::string> pdus;
    for (size_t i = 0; i < parts.size(); i++) {
        std::vector<uint8_t> head = header(message, parts.size(), i);
        size_t head_septets = (head.size() * 8 + 6) / 7;
        auto fill = static_cast<unsigned>(head_septets * 7 - head.size() * 8);
        pdus.push_back(frame_part(message, parts.size(), 0x00, head_septets + parts[i].size(),
                                  hex(head) + hex(pack_septets(parts[i], fill))));
    }
    return pdus;
}

std::vector<std::string> ucs2_parts(const Deliver &message)
{
    std::vector<uint16_t> units = utf16(message.text);
    size_t share = message.wide_reference ? 66 : 67;
    auto parts =
        cut(units, units.size() <= 70 ? 70 : share, [](uint16_t unit) { return unit >= 0xD800 && unit < 0xDC00; });
    if (parts.empty())
        parts.emplace_back();
    std::vector<std::string> pdus;
    for (size_t i = 0; i < parts.size(); i++) {
        std::vector<uint8_t> octets = header(message, parts.size(), i);
        for (uint16_t unit : parts[i]) {
            octets.push_back(static_cast<uint8_t>(unit >> 8));
            octets.push_back(static_cast<uint8_t>(unit & 0xFF));
        }
        pdus.push_back(frame_part(message, parts.size(), 0x08, octets.size(), hex(octets)));
    }
    return pdus;
}

} // namespace

std::optional<std::vector<uint8_t>> default_alphabet(std::string_view utf8)
{
    std::vector<uint8_t> septets;
    for (uint32_t point : code_points(utf8)) {
        auto found = std::find(basic.begin(), basic.end(), point);
        if (point < 0xFFFF && found != basic.end()) {
            septets.push_back(static_cast<uint8_t>(found - basic.begin()));
            continue;
        }
        auto extended = std::find_if(std::begin(extension), std::end(extension),
                                     [point](const auto &row) { return row.first == point; });
        if (extended == std::end(extension))
            return std::nullopt;
        septets.push_back(escape);
        septets.push_back(extended->second);
    }
    return septets;
}

std::vector<uint32_t> default_alphabet_points(const std::vector<uint8_t> &septets)
{
    std::vector<uint32_t> points;
    for (size_t i = 0; i < septets.size(); i++) {
        if (septets[i] != escape || i + 1 == septets.size()) {
            points.push_back(septets[i] == escape ? ' ' : basic.at(septets[i]));
            continue;
        }
        uint8_t extended = septets[++i];
        auto found = std::find_if(std::begin(extension), std::end(extension),
                                  [extended](const auto &row) { return row.second == extended; });
        points.push_back(found == std::end(extension) ? ' ' : found->first);
    }
    return points;
}

std::vector<uint8_t> pack_septets(const std::vector<uint8_t> &septets, unsigned fill)
{
    std::vector<uint8_t> octets((septets.size() * 7 + fill + 7) / 8);
    size_t bit = fill;
    for (uint8_t septet : septets)
        for (unsigned i = 0; i < 7; i++, bit++)
            if ((septet >> i & 1) != 0)
                octets[bit / 8] = static_cast<uint8_t>(octets[bit / 8] | 1U << bit % 8);
    return octets;
}

std::vector<std::string> deliver_pdus(const Deliver &message)
{
    auto septets = default_alphabet(message.text);
    std::vector<std::string> pdus = message.ucs2 || !septets ? ucs2_parts(message) : default_parts(message, *septets);
    if (pdus.size() > 255)
        throw std::invalid_argument("the text needs more than 255 parts");
    return pdus;
}

bool is_deliver_pdu(std::string_view hex_text)
{
    if (hex_text.size() % 2 != 0 || hex_text.find_first_not_of("0123456789ABCDEF") != hex_text.npos)
        return false;
    auto octet = [&](size_t at) {
        return at * 2 + 2 <= hex_text.size() ? std::stoi(std::string(hex_text.substr(at * 2, 2)), nullptr, 16) : -1;
    };
    int centre = octet(0);
    return centre >= 0 && centre <= 12 && octet(static_cast<size_t>(centre) + 1) >= 0;
}

} // namespace modemsim
