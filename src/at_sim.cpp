#include "at_sim.h"

#include <algorithm>

#include "at_text.h"

constexpr std::string_view code_names[PIN_CODES] = {"SIM PIN", "SIM PUK", "SIM PIN2", "SIM PUK2"};

static void append_code(AtCommand *command, std::string_view code)
{
    // A backspace would edit the command line in the modem.
    at_append_quoted(command, code);
    if (std::any_of(code.begin(), code.end(),
                    [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }))
        command->fault = 2;
}

static uint8_t count_of(std::string_view field)
{
    return static_cast<uint8_t>(std::clamp(leading_int(field), 0, UINT8_MAX));
}

static void parse_retries(std::string_view rest, PinRetries *retries)
{
    for (Cut found = after_marker(rest, "+CPINR:"); found.found; found = after_marker(rest, "+CPINR:")) {
        rest = found.text;
        std::string_view line = first_line(rest), name, left, initial;
        if (!next_field(&line, &name) || !next_field(&line, &left) || !next_field(&line, &initial))
            return;
        for (unsigned i = 0; i < PIN_CODES; i++) {
            if (trimmed(name) == code_names[i])
                retries->codes[i] = {1, count_of(left), count_of(initial)};
        }
    }
}

result_t at_get_remaining_pin_retries(const char *selection, PinRetries *retries)
{
    AtCommand command;
    at_begin(&command, "AT+CPINR");
    if (selection) {
        at_append(&command, "=");
        append_code(&command, selection);
    }
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    AtAnswer answer;
    at_exchange(command.text, "+CPINR:", "+CPINR: ", &answer);
    if (answer.usable())
        parse_retries(answer.view(), retries);
    return answer.code;
}

static void take_count(int32_t *count, std::string_view field)
{
    field = trimmed(field);
    if (!field.empty() && field.front() >= '0' && field.front() <= '9')
        *count = leading_int(field);
}

result_t at_get_sim_remaining_attempts(int32_t *pin, int32_t *puk)
{
    AtAnswer answer;
    at_exchange("AT+TPIN?\r", "+TPIN:", "+TPIN: ", &answer);
    Cut value = after_marker(answer.view(), "+TPIN:");
    if (!answer.usable() || !value.found)
        return answer.code;
    std::string_view rest = first_line(value.text), field;
    for (int32_t *count : {pin, puk}) {
        if (next_field(&rest, &field))
            take_count(count, field);
    }
    return answer.code;
}

result_t at_get_sim_lock_status(uint8_t *enabled)
{
    AtAnswer answer;
    at_exchange("AT+CLCK=\"SC\",2\r", "+CLCK:", "+CLCK:", &answer);
    Cut value = after_marker(answer.view(), "+CLCK:");
    if (answer.usable() && value.found)
        *enabled = trimmed(first_line(value.text)).starts_with('1');
    return answer.code;
}

result_t at_set_sim_lock_status(const char *pin, uint8_t mode)
{
    AtCommand command;
    at_begin(&command, "AT+CLCK=\"SC\",");
    at_append_number(&command, mode);
    at_append(&command, ",");
    append_code(&command, pin);
    return at_send_setter(&command, __func__);
}

result_t at_unlock_sim(const char *pin, const char *puk)
{
    AtCommand command;
    at_begin(&command, "AT+CPIN=");
    if (puk) {
        append_code(&command, puk);
        at_append(&command, ",");
    }
    append_code(&command, pin);
    return at_send_setter(&command, __func__);
}

result_t at_change_sim_pin(const char *pin, const char *new_pin)
{
    AtCommand command;
    at_begin(&command, "AT+CPWD=\"SC\",");
    append_code(&command, pin);
    at_append(&command, ",");
    append_code(&command, new_pin);
    return at_send_setter(&command, __func__);
}
