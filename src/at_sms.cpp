#include "at_sms.h"
#include "result.h"

result_t at_read_sms(int32_t index, AtAnswer *answer)
{
    constexpr const char *MARKER = "+CMGR:";
    AtCommand command;
    at_begin(&command, "AT+CMGR=");
    at_append_number(&command, index);
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    return at_exchange(command.text, MARKER, MARKER, answer);
}

result_t at_list_sms(AtAnswer *answer)
{
    constexpr uint32_t LISTING_MS = 10000;
    return at_exchange("AT+CMGL=4\r", nullptr, nullptr, answer, LISTING_MS);
}

result_t at_delete_sms(int32_t index)
{
    AtCommand command;
    at_begin(&command, "AT+CMGD=");
    at_append_number(&command, index);
    return at_send_setter(&command, __func__);
}
