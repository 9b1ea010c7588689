#include "text.h"

#include "default_alphabet.h"
#include "sms.h"

namespace sms {

void write_septets(std::span<const std::uint8_t> septets, Languages languages, Utf8Writer &writer)
{
    write_septets_of(
        septets, [languages](std::uint8_t septet) { return locking_character(languages.locking, septet); },
        [languages](std::uint8_t septet) { return single_shift_character(languages.single_shift, septet); }, writer);
}

} // namespace sms

int sms_text(const unsigned char *user_data, size_t length, int alphabet, const char *header_text, char *text,
             size_t text_size)
{
    if (!text || text_size == 0 || alphabet != SMS_ALPHABET_GSM || !header_text || (!user_data && length > 0)) {
        return sms_plain_text(user_data, length, alphabet, text, text_size);
    }
    sms::Utf8Writer writer({text, text_size});
    sms::write_septets({user_data, length}, sms::languages_of(header_text), writer);
    return writer.finish();
}
