// Building AT commands without overrun, exchanging them with the modem, and what an answer comes to.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "result.h"
#include "text_cut.h"

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
// Text of a caller, as it stands. Refused if at_text_allowed refuses it, or if a double quote in it is not closed.
void at_append_raw(AtCommand *command, std::string_view text);
// Text of a caller in double quotes. Refused if it holds a control character or a double quote.
void at_append_quoted(AtCommand *command, std::string_view text);
// False for text that would end a command or start another one: with a control character, or a ";" outside double
// quotes (V.250 5.2.1).
bool at_text_allowed(std::string_view text);
// Refuses the command, whatever is appended.
void at_refuse(AtCommand *command);
// True for a text that is one command line to the modem: without CR, LF, Ctrl-Z and ESC. One CR at its end is its own.
bool at_one_command(std::string_view text);
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
// The same, and what stands behind `expected` in the answer's first line that begins so. False when the answer is not
// usable or has no such line.
bool at_ask(const char *command, const char *expected, const char *complete_marker, AtAnswer *answer,
            std::string_view *values);
// at_exchange for a command that has no value to read. Refused commands give RESULT_ERROR, nothing is sent.
result_t at_send_setter(AtCommand *command, const char *function, uint32_t timeout_ms = AT_TIMEOUT_MS);
result_t at_send_setter(const char *command, uint32_t timeout_ms = AT_TIMEOUT_MS);

// The classification alone, of an answer text that may be null.
result_t at_classify(const char *text, const char *complete_marker);
