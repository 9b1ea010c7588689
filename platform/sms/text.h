// User data to characters.
#ifndef SMS_TEXT_H
#define SMS_TEXT_H

#include "default_alphabet.h"
#include "user_data_header.h"
#include "utf8.h"

#include <cstdint>
#include <span>

namespace sms {

// Writes septets (one per byte): main(septet) is a character of the main table, extension(septet) one behind the
// escape, or either is empty_position.
template<typename Main, typename Extension>
void write_septets_of(std::span<const std::uint8_t> septets, Main main, Extension extension, Utf8Writer &writer)
{
    for (std::size_t i = 0; i < septets.size(); ++i) {
        if (septets[i] > 0x7F) {
            writer.put(replacement_character);
            continue;
        }
        char16_t character = main(septets[i]);
        if (septets[i] == escape_septet && i + 1 < septets.size() && septets[i + 1] <= 0x7F) {
            ++i;
            character = extension(septets[i]);
            if (character == empty_position) {
                character = main(septets[i]);
            }
        }
        writer.put(character == empty_position ? U' ' : character);
    }
}

// Writes user data of any alphabet but binary, in the default tables. False for another alphabet.
bool write_plain(std::span<const std::uint8_t> data, int alphabet, Utf8Writer &writer);

// Writes septets (one per byte) as characters of the tables that `languages` names.
void write_septets(std::span<const std::uint8_t> septets, Languages languages, Utf8Writer &writer);

} // namespace sms

#endif
