#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "utf8.h"

struct CharacterRange {
    char32_t first;
    char32_t last;
};

static bool is_in(std::span<const CharacterRange> ranges, char32_t character)
{
    for (const CharacterRange &range : ranges)
        if (character >= range.first && character <= range.last)
            return true;
    return false;
}

// Controls, and what changes the direction or the lines of a text.
static const CharacterRange driving[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},
                                         {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069},
                                         {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE007F}};

// Of Unicode's combining marks those of scripts that messages are written in, and the joiners of emoji.
static const CharacterRange without_width[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x05BF, 0x05BF}, {0x05C1, 0x05C2}, {0x0610, 0x061A},
    {0x064B, 0x065F}, {0x0670, 0x0670}, {0x06D6, 0x06DC}, {0x0900, 0x0902}, {0x093C, 0x093C}, {0x0941, 0x0948},
    {0x094D, 0x094D}, {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
    {0x200B, 0x200D}, {0x20D0, 0x20FF}, {0x3099, 0x309A}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0xE0100, 0xE01EF}};

// Unicode's East Asian wide and fullwidth characters, emoji among them, in blocks.
static const CharacterRange wide[] = {
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x23E9, 0x23EC},   {0x2614, 0x2615},   {0x2648, 0x2653},
    {0x26C4, 0x26C5},   {0x2705, 0x2705},   {0x270A, 0x270B},   {0x274C, 0x274C},   {0x2753, 0x2755},
    {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF},   {0x4E00, 0x9FFF},   {0xA000, 0xA4CF},
    {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE4F},   {0xFF00, 0xFF60},   {0xFFE0, 0xFFE6},
    {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x1FA70, 0x1FAFF}, {0x20000, 0x3FFFD}};

// A backslash, a letter and so many hexadecimal digits.
static size_t write_escape(char (&escaped)[ESCAPED_SIZE], char letter, int digits, char32_t value)
{
    return static_cast<size_t>(
        snprintf(escaped, sizeof(escaped), "\\%c%0*x", letter, digits, static_cast<unsigned>(value)));
}

static size_t copy_bytes(const char *from, size_t length, char (&to)[ESCAPED_SIZE])
{
    memcpy(to, from, length);
    to[length] = '\0';
    return length;
}

static size_t escape_for_json(char32_t character, char (&escaped)[ESCAPED_SIZE])
{
    if (character == '"' || character == '\\') {
        const char pair[] = {'\\', static_cast<char>(character)};
        return copy_bytes(pair, 2, escaped);
    }
    if (character == '\n')
        return copy_bytes("\\n", 2, escaped);
    return write_escape(escaped, 'u', 4, character);
}

static size_t escape_for_text(char32_t character, char (&escaped)[ESCAPED_SIZE])
{
    if (character == '\n')
        return copy_bytes("\\n", 2, escaped);
    if (character == '\r')
        return copy_bytes("\\r", 2, escaped);
    if (character == '\t')
        return copy_bytes("\\t", 2, escaped);
    return character < 0x80 ? write_escape(escaped, 'x', 2, character) : write_escape(escaped, 'u', 4, character);
}

size_t escape_character(std::string_view &text, Escapes escapes, char (&escaped)[ESCAPED_SIZE])
{
    std::string_view before = text;
    char32_t character = sms::take_character(text);
    if (character == sms::no_character) {
        if (escapes == Escapes::json)
            return copy_bytes("\\ufffd", 6, escaped);
        return write_escape(escaped, 'x', 2, static_cast<unsigned char>(before.front()));
    }
    bool keep = character == '\n' && escapes == Escapes::lines;
    if (escapes == Escapes::json && character >= 0xE0000 && is_in(driving, character)) // tags, which say nothing
        return copy_bytes("\\ufffd", 6, escaped);
    if (escapes == Escapes::json && (character == '"' || character == '\\' || is_in(driving, character)))
        return escape_for_json(character, escaped);
    if (escapes != Escapes::json && !keep && is_in(driving, character))
        return escape_for_text(character, escaped);
    return copy_bytes(before.data(), before.size() - text.size(), escaped);
}

size_t escape_text(std::string_view text, char *escaped, size_t size, Escapes escapes)
{
    constexpr char more[] = "...";
    size_t used = 0;
    size_t used_with_room = 0; // where "..." can stand
    escaped[0] = '\0';
    while (!text.empty()) {
        char one[ESCAPED_SIZE];
        size_t length = escape_character(text, escapes, one);
        if (used + length >= size) {
            memcpy(escaped + used_with_room, more, sizeof(more));
            return used_with_room + sizeof(more) - 1;
        }
        memcpy(escaped + used, one, length + 1);
        used += length;
        if (used + sizeof(more) <= size)
            used_with_room = used;
    }
    return used;
}

static size_t character_width(char32_t character)
{
    if (character < 0x300)
        return 1;
    return is_in(without_width, character) ? 0 : is_in(wide, character) ? 2 : 1;
}

size_t text_width(std::string_view text)
{
    size_t width = 0;
    while (!text.empty())
        width += character_width(sms::take_character(text));
    return width;
}

size_t fitting_bytes(std::string_view text, size_t columns)
{
    std::string_view rest = text;
    size_t width = 0;
    while (!rest.empty()) {
        std::string_view before = rest;
        width += character_width(sms::take_character(rest));
        if (width > columns)
            return text.size() - before.size();
    }
    return text.size();
}

// Where value lies between the limits, as a step from 0 to steps - 1.
static int32_t step_of(int32_t value, int32_t lowest, int32_t highest, int32_t steps)
{
    int32_t within = std::clamp(value, lowest, highest) - lowest;
    return std::min(within * steps / (highest - lowest), steps - 1);
}

void write_bars(int32_t value, int32_t lowest, int32_t highest, char (&text)[BARS_SIZE])
{
    static const char bars[][4] = {"▂", "▃", "▅", "▆", "█"};
    int32_t last = step_of(value, lowest, highest, 5);
    char *end = text;
    for (int32_t i = 0; i < 5; i++)
        end = stpcpy(end, i <= last ? bars[i] : "·");
}

const char *spark(int32_t value, int32_t lowest, int32_t highest)
{
    static const char blocks[][4] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    return blocks[step_of(value, lowest, highest, 8)];
}
