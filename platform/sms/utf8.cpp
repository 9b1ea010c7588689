#include "utf8.h"

#include "sms.h"

namespace sms {

namespace {

struct LeadByte {
    unsigned char mask;
    unsigned char value;
    char32_t smallest;
};

// By the number of bytes behind the first; the smallest value refuses what would fit a shorter form.
constexpr LeadByte lead_bytes[] = {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};

char32_t read_sequence(std::string_view text, std::size_t following)
{
    const LeadByte &lead = lead_bytes[following];
    char32_t character = static_cast<unsigned char>(text[0]) & ~lead.mask & 0xFFu;
    for (std::size_t i = 1; i <= following; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) {
            return no_character;
        }
        character = character << 6 | (byte & 0x3Fu);
    }
    const bool surrogate = is_high_surrogate(character) || is_low_surrogate(character);
    return character < lead.smallest || character > 0x10FFFF || surrogate ? no_character : character;
}

} // namespace

char32_t take_character(std::string_view &text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    for (std::size_t following = 0; following < std::size(lead_bytes) && following < text.size(); ++following) {
        if ((first & lead_bytes[following].mask) != lead_bytes[following].value) {
            continue;
        }
        const char32_t character = read_sequence(text, following);
        text.remove_prefix(character == no_character ? 1 : following + 1);
        return character;
    }
    text.remove_prefix(1);
    return no_character;
}

void Utf8Writer::put(char32_t character)
{
    char bytes[4];
    std::size_t count = 1;
    if (character < 0x80) {
        bytes[0] = static_cast<char>(character);
    } else {
        count = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
        for (std::size_t i = count - 1; i > 0; --i) {
            bytes[i] = static_cast<char>(0x80 | (character & 0x3F));
            character >>= 6;
        }
        bytes[0] = static_cast<char>(lead_bytes[count - 1].value | character);
    }
    if (overflowed || buffer.size() - used <= count) {
        overflowed = true;
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        buffer[used++] = bytes[i];
    }
}

int Utf8Writer::finish()
{
    if (buffer.empty()) {
        return SMS_ERROR_TOO_LONG;
    }
    if (overflowed) {
        buffer[0] = 0;
        return SMS_ERROR_TOO_LONG;
    }
    buffer[used] = 0;
    return static_cast<int>(used);
}

} // namespace sms
