// Reading, listing and deleting messages of the SIM (3GPP TS 27.005 3.4.2, 3.4.3 and 3.5.4).
#pragma once

#include <cstdint>

#include "at_text.h"
#include "result.h"

// What the modem shows of one message, or of all of them.
result_t at_read_sms(int32_t index, AtAnswer *answer);
result_t at_list_sms(AtAnswer *answer);
result_t at_delete_sms(int32_t index);
