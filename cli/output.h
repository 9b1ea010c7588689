// Rows of text on standard output: a label and a value. With --json these functions print nothing (json.h is for that),
// so that a command prints what it knows in both forms and need not ask which is wanted. table.h does both at once.
//
// Colours only on a terminal that has them (not with NO_COLOR or TERM=dumb); in a pipe everything is plain.
#pragma once

#include <cstddef>
#include <string_view>

// Before anything else: chooses the form, finds out about the terminal.
void output_start(bool json);
// Writes out what is buffered. False when something could not be written, such as on a full disk or a closed pipe.
bool output_end();
void output_flush();
// Whether people look at rows: standard output is a terminal and JSON was not asked for.
bool output_is_terminal();
// Columns of the terminal; 80 where it does not say.
size_t output_width();

// The label, blanks up to the values' column, the value (printf format, escaped as a whole; an empty one reads
// "unknown"), line end.
[[gnu::format(printf, 2, 3)]] void print_row(const char *label, const char *format, ...);
// A line without a label.
[[gnu::format(printf, 1, 2)]] void print_line(const char *format, ...);

// The same in pieces: begin (label null for none), any number of pieces and colours, end.
enum class Colour { plain, bold, dim, red, yellow, green };
void row_begin(const char *label);
[[gnu::format(printf, 1, 2)]] void print_piece(const char *format, ...);
void print_colour(Colour colour); // until the next one
void row_end();
// On a terminal: back to the beginning of the line, which is emptied.
void restart_line();

// A text of any length, escaped, line feeds kept; nothing is added.
void print_text(std::string_view text);
