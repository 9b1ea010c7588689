// Calls, audio loopback, radio and mode switches of the modem. Each sends its command and gives back a result code; any
// thread.
#pragma once

#include <cstdint>

#include "result.h"

result_t at_hangup_call();
// *enabled becomes 1 or 0; untouched without a value in the answer.
result_t at_get_pcm_loopback_state(uint8_t *enabled);
// "off"; "on" (mode 3); a decimal number above 0 (that mode). Switching on always switches off first and takes 500 ms
// more.
result_t at_set_pcm_loopback_state(const char *state);
// The switches below take 0 or 1.
result_t at_set_5gsa(uint8_t enable);
result_t at_set_roaming_enable(uint8_t enable);
result_t at_set_sms_message_format(uint32_t format); // 0 PDU, 1 text (3GPP TS 27.005 3.2.3)
// Functionality level, 1 = radio on (3GPP TS 27.007 8.2). Up to 6 tries of 6 s, 500 ms apart; RESULT_REQUEST_FAILED
// after the last or when the daemon stops.
result_t at_set_functionality(int32_t level);
