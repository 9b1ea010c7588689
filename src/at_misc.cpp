#include "at_misc.h"

#include <cstring>

#include "at_text.h"
#include "result.h"
#include "waiting.h"

constexpr uint32_t PAUSE_MS = 500;

static result_t send_number(const char *start, int64_t value, const char *function)
{
    AtCommand command;
    at_begin(&command, start);
    at_append_number(&command, value);
    return at_send_setter(&command, function);
}

result_t at_hangup_call()
{
    return at_send_setter("ATH\r");
}

result_t at_get_pcm_loopback_state(uint8_t *enabled)
{
    constexpr const char *MARKER = "+GTPCMLOOPBACK:";
    AtAnswer answer;
    std::string_view state;
    if (at_ask("AT+GTPCMLOOPBACK?\r", MARKER, MARKER, &answer, &state) && !trimmed(state).empty())
        *enabled = trimmed(state).front() != '0';
    return answer.code;
}

result_t at_set_pcm_loopback_state(const char *state)
{
    constexpr const char *OFF = "AT+GTPCMLOOPBACK=0\r";
    AtAnswer answer;
    const result_t first = at_exchange(OFF, nullptr, nullptr, &answer);
    const bool refused = answer.text && !answer.usable();
    if (first == RESULT_REQUEST_FAILED || refused || strcmp(state, "off") == 0)
        return first;
    if (!sleep_while_running(PAUSE_MS))
        return RESULT_REQUEST_FAILED;

    AtCommand command;
    const int32_t mode = strcmp(state, "on") == 0 ? 3 : leading_int(state);
    at_begin(&command, "AT+GTPCMLOOPBACK=");
    if (mode > 0)
        at_append(&command, "1,");
    at_append_number(&command, mode > 0 ? mode : 0);
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    const result_t second = at_exchange(command.text, nullptr, nullptr, &answer);
    const bool unclear = second == RESULT_ERROR && (!answer.text || answer.usable());
    return unclear ? first : second;
}

result_t at_set_5gsa(uint8_t enable)
{
    return send_number("AT+GTSET=\"5GSACTR\",", enable, __func__);
}

result_t at_set_roaming_enable(uint8_t enable)
{
    return send_number("AT+GTROAMCFG=", enable, __func__);
}

result_t at_set_sms_message_format(uint32_t format)
{
    return send_number("AT+CMGF=", format, __func__);
}

result_t at_set_functionality(int32_t level)
{
    constexpr int TRIES = 6;
    constexpr uint32_t TIMEOUT_MS = 6000;
    AtCommand command;
    at_begin(&command, "AT+CFUN=");
    at_append_number(&command, level);
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    for (int i = 0; i < TRIES; i++) {
        AtAnswer answer;
        result_t code = at_exchange(command.text, nullptr, nullptr, &answer, TIMEOUT_MS);
        if (answer.usable()) // an answer without a final result counts as done
            return code == RESULT_NO_CARRIER ? code : RESULT_OK;
        if (!sleep_while_running(PAUSE_MS))
            break;
    }
    return RESULT_REQUEST_FAILED;
}
