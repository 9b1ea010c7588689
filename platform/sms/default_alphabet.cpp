#include "default_alphabet.h"

#include <array>

namespace sms {

constexpr char16_t default_table[129] = u"@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞ\uFFFFÆæßÉ"
                                        u" !\"#¤%&'()*+,-./0123456789:;<=>?"
                                        u"¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§"
                                        u"¿abcdefghijklmnopqrstuvwxyzäöñüà";

namespace {

constexpr Extension extensions[] = {{0x0A, u'\f'}, {0x14, u'^'}, {0x28, u'{'}, {0x29, u'}'}, {0x2F, u'\\'},
                                    {0x3C, u'['},  {0x3D, u'~'}, {0x3E, u']'}, {0x40, u'|'}, {0x65, u'€'}};

constexpr std::uint8_t not_there = 0xFF;

// The characters below U+0100, which is all but the Greek letters and the euro sign.
constexpr std::array<std::uint8_t, 256> latin_septets = [] {
    std::array<std::uint8_t, 256> septets{};
    septets.fill(not_there);
    for (int septet = 0; septet < 128; ++septet) {
        if (default_table[septet] < septets.size()) {
            septets[default_table[septet]] = static_cast<std::uint8_t>(septet);
        }
    }
    for (const Extension &extension : extensions) {
        if (extension.character < septets.size()) {
            septets[extension.character] = static_cast<std::uint8_t>(extension.septet | extended);
        }
    }
    return septets;
}();

constexpr int greek_first = 0x10;
constexpr int greek_last = 0x1A;

} // namespace

char16_t default_extension(std::uint8_t septet)
{
    for (const Extension &extension : extensions) {
        if (extension.septet == septet) {
            return extension.character;
        }
    }
    return empty_position;
}

int septet_of(char32_t character)
{
    if (character < latin_septets.size()) {
        const std::uint8_t septet = latin_septets[character];
        return septet == not_there ? -1 : septet;
    }
    for (int septet = greek_first; septet <= greek_last; ++septet) {
        if (default_table[septet] == character) {
            return septet;
        }
    }
    return character == U'€' ? 0x65 | extended : -1;
}

} // namespace sms
