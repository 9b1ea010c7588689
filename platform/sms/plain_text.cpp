#include "text.h"

#include "default_alphabet.h"
#include "sms.h"

namespace sms {

namespace {

void write_ucs2(std::span<const std::uint8_t> octets, Utf8Writer &writer)
{
    const auto unit_at = [octets](std::size_t place) -> char32_t {
        return static_cast<char32_t>(octets[place] << 8 | octets[place + 1]);
    };
    std::size_t place = 0;
    for (; place + 1 < octets.size(); place += 2) {
        char32_t character = unit_at(place);
        if (is_high_surrogate(character) && place + 3 < octets.size() && is_low_surrogate(unit_at(place + 2))) {
            character = 0x10000 + ((character - 0xD800) << 10) + (unit_at(place + 2) - 0xDC00);
            place += 2;
        } else if (is_high_surrogate(character) || is_low_surrogate(character)) {
            character = replacement_character;
        }
        writer.put(character);
    }
    if (place < octets.size()) {
        writer.put(replacement_character);
    }
}

void write_utf8(std::string_view text, Utf8Writer &writer)
{
    while (!text.empty()) {
        const char32_t character = take_character(text);
        writer.put(character == no_character ? replacement_character : character);
    }
}

} // namespace

bool write_plain(std::span<const std::uint8_t> data, int alphabet, Utf8Writer &writer)
{
    switch (alphabet) {
    case SMS_ALPHABET_GSM:
        write_septets_of(
            data, [](std::uint8_t septet) { return default_table[septet]; }, default_extension, writer);
        return true;
    case SMS_ALPHABET_ISO:
        for (const std::uint8_t octet : data) {
            writer.put(octet);
        }
        return true;
    case SMS_ALPHABET_UCS2:
        write_ucs2(data, writer);
        return true;
    case SMS_ALPHABET_UTF8:
        write_utf8({reinterpret_cast<const char *>(data.data()), data.size()}, writer);
        return true;
    default:
        return false;
    }
}

} // namespace sms

int sms_plain_text(const unsigned char *user_data, size_t length, int alphabet, char *text, size_t text_size)
{
    if (!text || text_size == 0) {
        return SMS_ERROR_ARGUMENT;
    }
    text[0] = 0;
    if (!user_data && length > 0) {
        return SMS_ERROR_ARGUMENT;
    }
    sms::Utf8Writer writer({text, text_size});
    if (!sms::write_plain({user_data, length}, alphabet, writer)) {
        return SMS_ERROR_ARGUMENT;
    }
    return writer.finish();
}
