#include "at_sms.h"

#include "at_text.h"

result_t at_read_sms(int32_t index)
{
    constexpr const char *MARKER = "+CMGR:";
    AtCommand command;
    AtAnswer answer;
    at_begin(&command, "AT+CMGR=");
    at_append_number(&command, index);
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    return at_exchange(command.text, MARKER, MARKER, &answer);
}

result_t at_delete_sms(int32_t index)
{
    AtCommand command;
    at_begin(&command, "AT+CMGD=");
    at_append_number(&command, index);
    return at_send_setter(&command, __func__);
}
