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

bool write_user_data(std::span<const std::uint8_t> data, int alphabet, const char *header_text, Utf8Writer &writer)
{
    switch (alphabet) {
    case SMS_ALPHABET_GSM:
        write_septets(data, languages_of(header_text ? header_text : ""), writer);
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

} // namespace

void write_septets(std::span<const std::uint8_t> septets, Languages languages, Utf8Writer &writer)
{
    for (std::size_t i = 0; i < septets.size(); ++i) {
        if (septets[i] > 0x7F) {
            writer.put(replacement_character);
            continue;
        }
        char16_t character = locking_character(languages.locking, septets[i]);
        if (septets[i] == escape_septet && i + 1 < septets.size() && septets[i + 1] <= 0x7F) {
            ++i;
            character = single_shift_character(languages.single_shift, septets[i]);
            if (character == empty_position) {
                character = locking_character(languages.locking, septets[i]);
            }
        }
        writer.put(character == empty_position ? U' ' : character);
    }
}

} // namespace sms

int sms_text(const unsigned char *user_data, size_t length, int alphabet, const char *header_text, char *text,
             size_t text_size)
{
    if (!text || text_size == 0) {
        return SMS_ERROR_ARGUMENT;
    }
    text[0] = 0;
    if (!user_data && length > 0) {
        return SMS_ERROR_ARGUMENT;
    }
    sms::Utf8Writer writer({text, text_size});
    if (!sms::write_user_data({user_data, length}, alphabet, header_text, writer)) {
        return SMS_ERROR_ARGUMENT;
    }
    return writer.finish();
}
