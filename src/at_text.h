// Building AT commands without overrun and cutting values out of answers without reading past them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "celmux.h"

constexpr uint32_t AT_TIMEOUT_MS = 3000;

// A bounded AT command under construction. Whatever does not fit, or would end the command and start another one, makes
// the whole command invalid: it is then refused by `send_setter`, `send_query` and `at_command_ok`, with one log line.
struct AtCommand {
    char text[1400];
    uint16_t length;
    uint8_t fault; // 0 none, 1 too long, 2 forbidden character
};

void at_begin(AtCommand *command, std::string_view start);
void at_append(AtCommand *command, std::string_view literal); // our own text, as it stands
void at_append_number(AtCommand *command, int64_t value);
// Text of a caller: refused if it holds CR, LF, Ctrl-Z, ESC or NUL.
void at_append_raw(AtCommand *command, std::string_view text);
// The same in double quotes; a double quote in it is refused too.
void at_append_quoted(AtCommand *command, std::string_view text);
// Appends "\r" and reports whether the command may be sent; logs a refusal at level 3 with `function`.
bool at_command_ok(AtCommand *command, const char *function);

// The answer of one exchange; frees the text at the end of its scope.
struct AtAnswer {
    char *text = nullptr;
    result_t code = RESULT_ERROR;

    AtAnswer() = default;
    AtAnswer(const AtAnswer &) = delete;
    AtAnswer &operator=(const AtAnswer &) = delete;
    ~AtAnswer();
    std::string_view view() const;           // empty without an answer
    bool usable() const;                     // there is a text and it does not hold "ERROR": values may be cut from it
    bool has_error(const char *error) const; // "+CME ERROR: 10" is not "+CME ERROR: 100"
};

// Requests `command` (ending in "\r") and classifies: no answer text or "ERROR" gives RESULT_ERROR, then "OK"
// RESULT_OK, "NO CARRIER" RESULT_NO_CARRIER, `complete_marker` (null for a setter) RESULT_INCOMPLETE, else
// RESULT_ERROR; request's -1 gives RESULT_REQUEST_FAILED.
result_t at_exchange(const char *command, const char *expected, const char *complete_marker, AtAnswer *answer,
                     uint32_t timeout_ms = AT_TIMEOUT_MS);
// at_exchange for a command that has no value to read. Refused commands give RESULT_ERROR, nothing is sent.
result_t at_send_setter(AtCommand *command, const char *function, uint32_t timeout_ms = AT_TIMEOUT_MS);
result_t at_send_setter(const char *command, uint32_t timeout_ms = AT_TIMEOUT_MS);

// The classification alone, of an answer text that may be null.
result_t at_classify(const char *text, const char *complete_marker);

// The text behind the first `marker`, up to the end of `text`; found tells whether there is one.
struct Cut {
    std::string_view text;
    bool found;
};
Cut after_marker(std::string_view text, std::string_view marker);
// The text before the first of `ends`; not found when none of them is in `text`.
Cut until_any(std::string_view text, std::string_view ends);

// The text before the first CR or LF; the whole text without one.
std::string_view first_line(std::string_view text);
// The text without its first `count` characters; empty when it has no more.
constexpr std::string_view behind(std::string_view text, size_t count)
{
    text.remove_prefix(count < text.size() ? count : text.size());
    return text;
}
// The text without the blanks, tabs and line ends around it.
std::string_view trimmed(std::string_view text);

// Takes the next comma-separated field off the front of *rest; false when none is left. "a,,b" has three fields, an
// empty text one (empty), a null view none.
bool next_field(std::string_view *rest, std::string_view *field);
// Takes the next line (maximal run without CR and LF) off the front of *rest; false when none is left.
bool next_line(std::string_view *rest, std::string_view *line);
// Value of the leading decimal digits (a sign and leading blanks allowed); 0 without any; saturates at the limits of
// int32.
int32_t leading_int(std::string_view text);
// Value of a field of hexadecimal digits (leading blanks allowed); false when there is no digit or more than 64 bits.
bool parse_hex(std::string_view text, uint64_t *value);

// Copies `value` with a terminating zero. False, and `out` untouched, when it does not fit whole.
bool copy_text(std::span<char> out, std::string_view value);
// Copies as much as fits, always terminated: for record fields whose width is given.
void copy_cut(std::span<char> out, std::string_view value);
