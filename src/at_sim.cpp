#include "at_sim.h"

#include "at_text.h"
#include "result.h"

constexpr std::string_view code_names[PIN_CODES] = {"SIM PIN", "SIM PUK", "SIM PIN2", "SIM PUK2"};

static void parse_retries(std::string_view answer, PinRetries *retries)
{
    std::string_view line, name, left, initial;
    while (next_own_line(&answer, "+CPINR:", &line)) {
        if (!next_field(&line, &name) || !next_field(&line, &left) || !next_field(&line, &initial))
            return;
        if (byte_figure(left) == BYTE_ABSENT)
            continue;
        for (unsigned i = 0; i < PIN_CODES; i++) {
            if (unquoted(trimmed(name)) == code_names[i])
                retries->codes[i] = {1, byte_figure(left), byte_figure(initial)};
        }
    }
}

result_t at_get_remaining_pin_retries(const char *selection, PinRetries *retries)
{
    AtCommand command;
    at_begin(&command, "AT+CPINR");
    if (selection) {
        at_append(&command, "=");
        at_append_quoted(&command, selection);
    }
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    AtAnswer answer;
    at_exchange(command.text, "+CPINR:", "+CPINR: ", &answer);
    if (answer.usable())
        parse_retries(answer.view(), retries);
    return answer.code;
}

result_t at_get_sim_remaining_attempts(int32_t *pin, int32_t *puk)
{
    AtAnswer answer;
    std::string_view rest;
    if (!at_ask("AT+TPIN?\r", "+TPIN:", "+TPIN: ", &answer, &rest))
        return answer.code;
    take_figures(&rest, {pin, puk});
    return answer.code;
}

result_t at_get_sim_lock_status(uint8_t *enabled)
{
    AtAnswer answer;
    std::string_view state;
    if (at_ask("AT+CLCK=\"SC\",2\r", "+CLCK:", "+CLCK:", &answer, &state))
        *enabled = trimmed(state).starts_with('1');
    return answer.code;
}

result_t at_set_sim_lock_status(const char *pin, uint8_t mode)
{
    AtCommand command;
    at_begin(&command, "AT+CLCK=\"SC\",");
    at_append_number(&command, mode);
    at_append(&command, ",");
    at_append_quoted(&command, pin);
    return at_send_setter(&command, __func__);
}

result_t at_unlock_sim(const char *pin, const char *puk)
{
    AtCommand command;
    at_begin(&command, "AT+CPIN=");
    if (puk) {
        at_append_quoted(&command, puk);
        at_append(&command, ",");
    }
    at_append_quoted(&command, pin);
    return at_send_setter(&command, __func__);
}

result_t at_change_sim_pin(const char *pin, const char *new_pin)
{
    AtCommand command;
    at_begin(&command, "AT+CPWD=\"SC\",");
    at_append_quoted(&command, pin);
    at_append(&command, ",");
    at_append_quoted(&command, new_pin);
    return at_send_setter(&command, __func__);
}
