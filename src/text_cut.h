// Cutting lines, fields and values out of a text without reading past them. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

// The text behind the first `marker`, up to the end of `text`; found tells whether there is one.
struct Cut {
    std::string_view text;
    bool found;
};
Cut after_marker(std::string_view text, std::string_view marker);
// The text before the first of `ends`; not found when none of them is in `text`.
Cut until_any(std::string_view text, std::string_view ends);

// Takes the next line of an answer that begins with `prefix` off the front of *rest, and what stands before it. *line
// is that line without the prefix; blanks and bytes that are no text do not count at its start. False when none is
// left.
bool next_own_line(std::string_view *rest, std::string_view prefix, std::string_view *line);
// The first such line.
Cut own_line(std::string_view answer, std::string_view prefix);

// The text without its first `count` characters; empty when it has no more.
constexpr std::string_view behind(std::string_view text, size_t count)
{
    text.remove_prefix(count < text.size() ? count : text.size());
    return text;
}
// The text without the blanks, tabs and line ends around it.
std::string_view trimmed(std::string_view text);

// The text without the double quotes around it, if there are two.
std::string_view unquoted(std::string_view text);

// Takes the next comma-separated field off the front of *rest; false when none is left. "a,,b" has three fields, an
// empty text one (empty), a null view none. A comma in a field that stands in double quotes does not end it.
bool next_field(std::string_view *rest, std::string_view *field);
// Takes the next line (maximal run without CR and LF) off the front of *rest; false when none is left.
bool next_line(std::string_view *rest, std::string_view *line);
// Value of the leading decimal digits (a sign and leading blanks allowed); 0 without any; saturates at the limits of
// int32.
int32_t leading_int(std::string_view text);
// What stands for "not known or not detectable" in one byte (3GPP TS 27.007 8.69).
constexpr uint8_t BYTE_ABSENT = 255;
// Value of a field of 0 to `max`; BYTE_ABSENT for one that is missing, not a number or greater.
uint8_t byte_figure(std::string_view field, uint8_t max = BYTE_ABSENT - 1);
// Takes a field off *rest for each of the numbers; those whose field is no such figure stay as they are.
void take_figures(std::string_view *rest, std::initializer_list<int32_t *> numbers);
// Value of a field of hexadecimal digits (leading blanks allowed); false when there is no digit or more than 64 bits.
bool parse_hex(std::string_view text, uint64_t *value);

// Copies `value` with a terminating zero. False, and `out` untouched, when it does not fit whole.
bool copy_text(std::span<char> out, std::string_view value);
// Copies as much as fits, always terminated: for record fields whose width is given.
void copy_cut(std::span<char> out, std::string_view value);
