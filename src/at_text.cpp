#include "at_text.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "request.h"

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

static bool ends_a_command(char c)
{
    return c == '\r' || c == '\n' || c == '\x1a' || c == '\x1b' || c == '\0';
}

void at_append_raw(AtCommand *command, std::string_view text)
{
    for (char c : text) {
        if (ends_a_command(c))
            command->fault = FAULT_CHARACTER;
    }
    at_append(command, text);
}

void at_append_quoted(AtCommand *command, std::string_view text)
{
    if (text.find('"') != std::string_view::npos)
        command->fault = FAULT_CHARACTER;
    at_append(command, "\"");
    at_append_raw(command, text);
    at_append(command, "\"");
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
        answer->code = RESULT_REQUEST_FAILED;
    else
        answer->code = at_classify(answer->text, complete_marker);
    return answer->code;
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

Cut after_marker(std::string_view text, std::string_view marker)
{
    size_t at = text.find(marker);
    if (at == std::string_view::npos)
        return {{}, false};
    return {text.substr(at + marker.size()), true};
}

Cut until_any(std::string_view text, std::string_view ends)
{
    size_t end = text.find_first_of(ends);
    if (end == std::string_view::npos)
        return {{}, false};
    return {text.substr(0, end), true};
}

std::string_view first_line(std::string_view text)
{
    return text.substr(0, text.find_first_of("\r\n"));
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view AROUND = " \t\r\n";
    size_t first = text.find_first_not_of(AROUND);
    if (first == std::string_view::npos)
        return text.substr(0, 0);
    return behind(text.substr(0, text.find_last_not_of(AROUND) + 1), first);
}

bool next_field(std::string_view *rest, std::string_view *field)
{
    // A null view marks the end: an empty one that is not null still is a last, empty field.
    if (rest->data() == nullptr)
        return false;
    size_t comma = rest->find(',');
    *field = rest->substr(0, comma);
    *rest = comma == std::string_view::npos ? std::string_view() : rest->substr(comma + 1);
    return true;
}

bool next_line(std::string_view *rest, std::string_view *line)
{
    size_t start = rest->find_first_not_of("\r\n");
    if (start == std::string_view::npos)
        return false;
    *rest = rest->substr(start);
    *line = rest->substr(0, rest->find_first_of("\r\n"));
    *rest = rest->substr(line->size());
    return true;
}

int32_t leading_int(std::string_view text)
{
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string_view::npos)
        return 0;
    bool negative = text[at] == '-';
    if (negative || text[at] == '+')
        at++;
    int64_t value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++) {
        value = value * 10 + (text[at] - '0');
        if (value > INT32_MAX)
            return negative ? INT32_MIN : INT32_MAX;
    }
    return static_cast<int32_t>(negative ? -value : value);
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool parse_hex(std::string_view text, uint64_t *value)
{
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string_view::npos || hex_digit(text[at]) < 0)
        return false;
    uint64_t sum = 0;
    for (; at < text.size() && hex_digit(text[at]) >= 0; at++) {
        if (sum >> 60)
            return false;
        sum = sum << 4 | static_cast<uint64_t>(hex_digit(text[at]));
    }
    *value = sum;
    return true;
}

bool copy_text(std::span<char> out, std::string_view value)
{
    if (value.size() >= out.size())
        return false;
    if (!value.empty())
        memcpy(out.data(), value.data(), value.size());
    out[value.size()] = '\0';
    return true;
}

void copy_cut(std::span<char> out, std::string_view value)
{
    if (!out.empty())
        (void)copy_text(out, value.substr(0, out.size() - 1)); // fits by construction
}
