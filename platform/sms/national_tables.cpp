#include "national_tables.h"

#include "default_alphabet.h"

#include <span>
#include <string_view>

namespace sms {

namespace {

enum : Language {
    turkish = 1,
    spanish = 2,
    portuguese = 3,
    first_indian = 4,
    hindi = 6,
    urdu = 13,
    last_indian = urdu
};

// The locking tables of the Latin languages, as far as they differ from the default alphabet.
constexpr Extension turkish_locking[] = {{0x04, u'€'}, {0x07, u'ı'}, {0x0B, u'Ğ'}, {0x0C, u'ğ'},
                                         {0x1C, u'Ş'}, {0x1D, u'ş'}, {0x40, u'İ'}, {0x60, u'ç'}};
constexpr Extension portuguese_locking[] = {
    {0x04, u'ê'}, {0x06, u'ú'}, {0x07, u'í'}, {0x08, u'ó'}, {0x09, u'ç'}, {0x0B, u'Ô'}, {0x0C, u'ô'},  {0x0E, u'Á'},
    {0x0F, u'á'}, {0x12, u'ª'}, {0x13, u'Ç'}, {0x14, u'À'}, {0x15, u'∞'}, {0x16, u'^'}, {0x17, u'\\'}, {0x18, u'€'},
    {0x19, u'Ó'}, {0x1A, u'|'}, {0x1C, u'Â'}, {0x1D, u'â'}, {0x1E, u'Ê'}, {0x24, u'º'}, {0x40, u'Í'},  {0x5B, u'Ã'},
    {0x5C, u'Õ'}, {0x5D, u'Ú'}, {0x60, u'~'}, {0x7B, u'ã'}, {0x7C, u'õ'}, {0x7D, u'`'}};

// The single shift tables of the Latin languages, as far as they differ from the default extension.
constexpr Extension turkish_shift[] = {{0x47, u'Ğ'}, {0x49, u'İ'}, {0x53, u'Ş'}, {0x63, u'ç'},
                                       {0x67, u'ğ'}, {0x69, u'ı'}, {0x73, u'ş'}};
constexpr Extension spanish_shift[] = {{0x09, u'ç'}, {0x41, u'Á'}, {0x49, u'Í'}, {0x4F, u'Ó'}, {0x55, u'Ú'},
                                       {0x61, u'á'}, {0x69, u'í'}, {0x6F, u'ó'}, {0x75, u'ú'}};
constexpr Extension portuguese_shift[] = {
    {0x05, u'ê'}, {0x09, u'ç'}, {0x0B, u'Ô'}, {0x0C, u'ô'}, {0x0E, u'Á'}, {0x0F, u'á'}, {0x12, u'Φ'},
    {0x13, u'Γ'}, {0x15, u'Ω'}, {0x16, u'Π'}, {0x17, u'Ψ'}, {0x18, u'Σ'}, {0x19, u'Θ'}, {0x1F, u'Ê'},
    {0x41, u'À'}, {0x49, u'Í'}, {0x4F, u'Ó'}, {0x55, u'Ú'}, {0x5B, u'Ã'}, {0x5C, u'Õ'}, {0x61, u'Â'},
    {0x69, u'í'}, {0x6F, u'ó'}, {0x75, u'ú'}, {0x7B, u'ã'}, {0x7C, u'õ'}, {0x7F, u'â'}};

// Septets 0x00 to 0x5F of the Hindi locking table. The other Indian languages in scripts of their own put the same
// letters of their own Unicode blocks at the same septets, and a blank where they lack the letter.
constexpr char16_t hindi_locking[] =
    u"\u0901\u0902\u0903\u0905\u0906\u0907\u0908\u0909\u090A\u090B\n\u090C\u090D\r\u090E\u090F"
    u"\u0910\u0911\u0912\u0913\u0914\u0915\u0916\u0917\u0918\u0919\u091A\uFFFF\u091B\u091C\u091D\u091E"
    u" !\u091F\u0920\u0921\u0922\u0923\u0924)(\u0925\u0926,\u0927.\u0928"
    u"0123456789:;\u0929\u092A\u092B?"
    u"\u092C\u092D\u092E\u092F\u0930\u0931\u0932\u0933\u0934\u0935\u0936\u0937\u0938\u0939\u093C\u093D"
    u"\u093E\u093F\u0940\u0941\u0942\u0943\u0944\u0945\u0946\u0947\u0948\u0949\u094A\u094B\u094C\u094D";

constexpr char16_t urdu_locking[] =
    u"\u0627\u0622\u0628\u067B\u0680\u067E\u06A6\u062A\u06C2\u067F\n\u0679\u067D\r\u067A\u067C"
    u"\u062B\u062C\u0681\u0684\u0683\u0685\u0686\u0687\u062D\u062E\u062F\uFFFF\u068C\u0688\u0689\u068A"
    u" !\u068F\u068D\u0630\u0631\u0691\u0693)(\u0699\u0632,\u0696.\u0698"
    u"0123456789:;\u069A\u0633\u0634?"
    u"\u0635\u0636\u0637\u0638\u0639\u0641\u0642\u06A9\u06AA\u06AB\u06AF\u06B3\u06B1\u0644\u0645\u0646"
    u"\u06BA\u06BB\u06BC\u0648\u06C4\u06D5\u06C1\u06BE\u0621\u06CC\u06D0\u06D2\u064D\u0650\u064F\u0657";

constexpr unsigned indian_locking_own = 0x60;
static_assert(std::size(hindi_locking) == indian_locking_own + 1 &&
              std::size(urdu_locking) == std::size(hindi_locking));

constexpr char16_t devanagari = 0x0900;

struct IndianLanguage {
    std::string_view lacking; // offsets in the block of the Hindi letters that it has no counterpart of
    char16_t block;           // of the script; none for Urdu, whose table is written out
    char16_t last_six[7];     // locking: the character before "a" and the five behind "z"
    char16_t shift[36];       // single shift: septets 0x19 to 0x3B, a blank or nothing where the common ones hold
};

constexpr std::uint8_t indian_shift_first = 0x19;

// By identifier: Bengali, Gujarati, Hindi, Kannada, Malayalam, Oriya, Punjabi, Tamil, Telugu, Urdu.
constexpr IndianLanguage indian_languages[] = {
    {"\x0D\x0E\x11\x12\x29\x31\x33\x34\x35\x45\x46\x49\x4A", 0x0980, u"\u09CE\u09D7\u09DC\u09DD\u09F0\u09F1",
     u"\u09E6\u09E7 \u09E8\u09E9\u09EA\u09EB\u09EC\u09ED\u09EE\u09EF\u09DF\u09E0\u09E1\u09E2  "
     u"\u09E3\u09F2\u09F3\u09F4\u09F5 \u09F6\u09F7\u09F8\u09F9\u09FA"},
    {"\x0E\x12\x29\x31\x34\x46\x4A", 0x0A80, u"\u0AD0\u0AE0\u0AE1\u0AE2\u0AE3\u0AF1",
     u"\u0964\u0965 \u0AE6\u0AE7\u0AE8\u0AE9\u0AEA\u0AEB\u0AEC\u0AED\u0AEE\u0AEF"},
    {"", devanagari, u"\u0950\u0972\u097B\u097C\u097E\u097F",
     u"\u0964\u0965 \u0966\u0967\u0968\u0969\u096A\u096B\u096C\u096D\u096E\u096F\u0951\u0952  "
     u"\u0953\u0954\u0958\u0959\u095A \u095B\u095C\u095D\u095E\u095F\u0960\u0961\u0962\u0963\u0970\u0971"},
    {"\x01\x0D\x11\x29\x34\x45\x49", 0x0C80, u"\u0CD5\u0CD6\u0CE0\u0CE1\u0CE2\u0CE3",
     u"\u0964\u0965 \u0CE6\u0CE7\u0CE8\u0CE9\u0CEA\u0CEB\u0CEC\u0CED\u0CEE\u0CEF\u0CDE\u0CF1  "
     u"\u0CF2"},
    {"\x01\x0D\x11\x29\x3C\x45\x49", 0x0D00, u"\u0D57\u0D60\u0D61\u0D62\u0D63\u0D79",
     u"\u0964\u0965 \u0D66\u0D67\u0D68\u0D69\u0D6A\u0D6B\u0D6C\u0D6D\u0D6E\u0D6F\u0D70\u0D71  "
     u"\u0D72\u0D73\u0D74\u0D75\u0D7A \u0D7B\u0D7C\u0D7D\u0D7E\u0D7F"},
    {"\x0D\x0E\x11\x12\x29\x31\x34\x45\x46\x49\x4A", 0x0B00, u"\u0B56\u0B57\u0B60\u0B61\u0B62\u0B63",
     u"\u0964\u0965 \u0B66\u0B67\u0B68\u0B69\u0B6A\u0B6B\u0B6C\u0B6D\u0B6E\u0B6F\u0B5C\u0B5D  "
     u"\u0B5F\u0B70\u0B71"},
    {"\x0B\x0C\x0D\x0E\x11\x12\x29\x31\x34\x37\x3D\x43\x44\x45\x46\x49\x4A", 0x0A00,
     u"\u0A51\u0A70\u0A71\u0A72\u0A73\u0A74",
     u"\u0964\u0965 \u0A66\u0A67\u0A68\u0A69\u0A6A\u0A6B\u0A6C\u0A6D\u0A6E\u0A6F\u0A59\u0A5A  "
     u"\u0A5B\u0A5C\u0A5E\u0A75"},
    {"\x01\x0B\x0C\x0D\x11\x16\x17\x18\x1B\x1D\x20\x21\x22\x25\x26\x27\x2B\x2C\x2D\x3C\x3D\x43\x44\x45\x49", 0x0B80,
     u"\u0BD0\u0BD7\u0BF0\u0BF1\u0BF2\u0BF9",
     u"\u0964\u0965 \u0BE6\u0BE7\u0BE8\u0BE9\u0BEA\u0BEB\u0BEC\u0BED\u0BEE\u0BEF\u0BF3\u0BF4  "
     u"\u0BF5\u0BF6\u0BF7\u0BF8\u0BFA"},
    {"\x0D\x11\x29\x34\x3C\x45\x49", 0x0C00, u"\u0C55\u0C56\u0C60\u0C61\u0C62\u0C63",
     u"   \u0C66\u0C67\u0C68\u0C69\u0C6A\u0C6B\u0C6C\u0C6D\u0C6E\u0C6F\u0C58\u0C59  "
     u"\u0C78\u0C79\u0C7A\u0C7B\u0C7C \u0C7D\u0C7E\u0C7F"},
    {"", 0, u"\u0654\u0655\u0651\u0653\u0656\u0670",
     u"\u0600\u0601 \u06F0\u06F1\u06F2\u06F3\u06F4\u06F5\u06F6\u06F7\u06F8\u06F9\u060C\u060D  "
     u"\u060E\u060F\u0610\u0611\u0612 \u0613\u0614\u061B\u061F\u0640\u0652\u0658\u066B\u066C\u0672\u0673\u06CD"},
};
static_assert(std::size(indian_languages) == last_indian - first_indian + 1);

// Septets 0x00 to 0x18 of every Indian single shift table; the one of the carriage return is not used.
constexpr char16_t indian_shift_signs[] = u"@£$¥¿\"¤%&'\f*+\uFFFF-/<=>¡^¡_#*";
static_assert(std::size(indian_shift_signs) == indian_shift_first + 1);

constexpr Extension urdu_full_stop = {0x3F, u'\u06D4'};

char16_t find(std::span<const Extension> extensions, std::uint8_t septet)
{
    for (const Extension &extension : extensions) {
        if (extension.septet == septet) {
            return extension.character;
        }
    }
    return empty_position;
}

bool is_indian(Language language)
{
    return language >= first_indian && language <= last_indian;
}

char16_t indian_locking(Language language, std::uint8_t septet)
{
    const IndianLanguage &entry = indian_languages[language - first_indian];
    if (septet >= indian_locking_own) {
        if (septet == indian_locking_own) {
            return entry.last_six[0];
        }
        return septet > 'z' ? entry.last_six[septet - 'z'] : septet;
    }
    if (language == urdu) {
        return urdu_locking[septet];
    }
    const char16_t letter = hindi_locking[septet];
    if (letter < devanagari || letter == empty_position) {
        return letter;
    }
    const auto offset = static_cast<char16_t>(letter - devanagari);
    const bool lacking = entry.lacking.find(static_cast<char>(offset)) != std::string_view::npos;
    return lacking ? u' ' : static_cast<char16_t>(entry.block + offset);
}

char16_t indian_shift(Language language, std::uint8_t septet)
{
    if (septet < indian_shift_first) {
        return indian_shift_signs[septet];
    }
    const IndianLanguage &entry = indian_languages[language - first_indian];
    const unsigned own = septet - indian_shift_first;
    if (own < std::size(entry.shift) && entry.shift[own] > u' ') {
        return entry.shift[own];
    }
    if (septet >= 'A' && septet <= 'Z') {
        return septet;
    }
    if (language == urdu && septet == urdu_full_stop.septet) {
        return urdu_full_stop.character;
    }
    return default_extension(septet);
}

} // namespace

char16_t locking_character(Language language, std::uint8_t septet)
{
    char16_t character = empty_position;
    if (is_indian(language)) {
        return indian_locking(language, septet);
    }
    if (language == turkish) {
        character = find(turkish_locking, septet);
    } else if (language == portuguese) {
        character = find(portuguese_locking, septet);
    }
    return character != empty_position ? character : default_table[septet];
}

char16_t single_shift_character(Language language, std::uint8_t septet)
{
    char16_t character = empty_position;
    if (is_indian(language)) {
        return indian_shift(language, septet);
    }
    if (language == turkish) {
        character = find(turkish_shift, septet);
    } else if (language == spanish) {
        character = find(spanish_shift, septet);
    } else if (language == portuguese) {
        character = find(portuguese_shift, septet);
    }
    return character != empty_position ? character : default_extension(septet);
}

} // namespace sms
