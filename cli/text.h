// Texts as a terminal may show them. Pure functions.
//
// What came over the air may hold anything: control characters (C0, DEL, C1), bidirectional overrides and bytes that
// are not UTF-8 are shown as \x1b, \u202e and the like, so that nothing drives a terminal or changes what is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

enum class Escapes {
    text,  // \n, \t, \x1b, \u009b, \xff for a byte that is not UTF-8
    lines, // the same but for line feeds, which stay
    json,  // as RFC 8259 wants them; a byte that is not UTF-8 becomes \ufffd
};

constexpr size_t ESCAPED_SIZE = 8; // of one character, terminating zero included

// Takes the first character off `text`, which must not be empty, and writes it, escaped where needed, with a
// terminating zero. Returns the bytes written without that.
size_t escape_character(std::string_view &text, Escapes escapes, char (&escaped)[ESCAPED_SIZE]);

// Writes the whole text into at most `size` bytes with the terminating zero; what does not fit is left out and "..."
// stands in front of the end. Returns the bytes written without the zero. size must be at least 4.
size_t escape_text(std::string_view text, char *escaped, size_t size, Escapes escapes = Escapes::text);

// Columns that escaped text takes on a terminal: combining characters none, wide East Asian characters and emoji two.
size_t text_width(std::string_view text);
// Bytes of the longest beginning of `text` that is no wider than `columns`.
size_t fitting_bytes(std::string_view text, size_t columns);

constexpr size_t BARS_SIZE = 16;

// Five steps of bars for a value between lowest (one) and highest (all), such as "▂▃▅··".
void write_bars(int32_t value, int32_t lowest, int32_t highest, char (&text)[BARS_SIZE]);
// One of the eight block characters for a value between lowest and highest; values beyond are taken as these.
const char *spark(int32_t value, int32_t lowest, int32_t highest);
