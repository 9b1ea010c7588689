#include "at_text.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link_text.h"
#include "log.h"
#include "request.h"
#include "result.h"

constexpr uint8_t FAULT_TOO_LONG = 1;
constexpr uint8_t FAULT_CHARACTER = 2;

void at_append(AtCommand *command, std::string_view literal)
{
    // Two bytes stay free for "\r" and the terminating zero.
    if (literal.size() > sizeof command->text - 2 - command->length) {
        command->fault = FAULT_TOO_LONG;
        return;
    }
    if (!literal.empty())
        memcpy(command->text + command->length, literal.data(), literal.size());
    command->length = static_cast<uint16_t>(command->length + literal.size());
    command->text[command->length] = '\0';
}

void at_begin(AtCommand *command, std::string_view start)
{
    command->length = 0;
    command->fault = 0;
    command->text[0] = '\0';
    at_append(command, start);
}

void at_append_number(AtCommand *command, int64_t value)
{
    char digits[24];
    int length = snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
    at_append(command, std::string_view(digits, static_cast<size_t>(length)));
}

static bool holds_control(std::string_view text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

static bool allowed(std::string_view text, bool *quote_open)
{
    *quote_open = false;
    for (char c : text) {
        if (c == '"')
            *quote_open = !*quote_open;
        else if (c == ';' && !*quote_open)
            return false;
    }
    return !holds_control(text);
}

bool at_text_allowed(std::string_view text)
{
    bool quote_open;
    return allowed(text, &quote_open);
}

void at_refuse(AtCommand *command)
{
    command->fault = FAULT_CHARACTER;
}

void at_append_raw(AtCommand *command, std::string_view text)
{
    bool quote_open;
    if (!allowed(text, &quote_open) || quote_open)
        at_refuse(command);
    at_append(command, text);
}

void at_append_quoted(AtCommand *command, std::string_view text)
{
    if (holds_control(text) || text.find('"') != std::string_view::npos)
        at_refuse(command);
    at_append(command, "\"");
    at_append(command, text);
    at_append(command, "\"");
}

bool at_one_command(std::string_view text)
{
    if (text.ends_with('\r'))
        text.remove_suffix(1);
    return text.find_first_of("\r\n\x1a\x1b") == std::string_view::npos;
}

bool at_command_ok(AtCommand *command, const char *function)
{
    if (command->fault) {
        CELMUX_LOG(LOG_ERR, "%s refused: %s", function, function,
                   command->fault == FAULT_TOO_LONG ? "argument too long" : "argument holds a forbidden character");
        return false;
    }
    command->text[command->length++] = '\r';
    command->text[command->length] = '\0';
    return true;
}

AtAnswer::~AtAnswer()
{
    free(text);
}

std::string_view AtAnswer::view() const
{
    return text ? std::string_view(text) : std::string_view();
}

bool AtAnswer::usable() const
{
    return text && !strstr(text, "ERROR");
}

bool AtAnswer::has_error(const char *error) const
{
    const char *found = text ? strstr(text, error) : nullptr;
    char next = found ? found[strlen(error)] : '0';
    return next < '0' || next > '9';
}

result_t at_classify(const char *text, const char *complete_marker)
{
    if (!text || strstr(text, "ERROR"))
        return RESULT_ERROR;
    if (strstr(text, "OK"))
        return RESULT_OK;
    if (strstr(text, "NO CARRIER"))
        return RESULT_NO_CARRIER;
    return complete_marker && strstr(text, complete_marker) ? RESULT_INCOMPLETE : RESULT_ERROR;
}

result_t at_exchange(const char *command, const char *expected, const char *complete_marker, AtAnswer *answer,
                     uint32_t timeout_ms)
{
    free(answer->text);
    answer->text = nullptr;
    if (request(command, &answer->text, expected, 0, timeout_ms) == -1)
        return answer->code = RESULT_REQUEST_FAILED;
    if (answer->text)
        remove_reports(answer->text, command);
    return answer->code = at_classify(answer->text, complete_marker);
}

bool at_ask(const char *command, const char *expected, const char *complete_marker, AtAnswer *answer,
            std::string_view *values)
{
    at_exchange(command, expected, complete_marker, answer);
    const Cut line = own_line(answer->view(), expected);
    *values = line.text;
    return answer->usable() && line.found;
}

result_t at_send_setter(const char *command, uint32_t timeout_ms)
{
    AtAnswer answer;
    return at_exchange(command, nullptr, nullptr, &answer, timeout_ms);
}

result_t at_send_setter(AtCommand *command, const char *function, uint32_t timeout_ms)
{
    if (!at_command_ok(command, function))
        return RESULT_ERROR;
    return at_send_setter(command->text, timeout_ms);
}
