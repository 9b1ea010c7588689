// PIN protection of the SIM card (3GPP TS 27.007 7.4, 7.5, 8.3 and 8.65, and the vendor's AT+TPIN). The state of the
// card itself is read by at_get_sim_status.
#pragma once

#include <cstdint>

#include "result.h"

struct PinRetryGroup {
    uint8_t present;         // the modem reported this code
    uint8_t retries;         // attempts left
    uint8_t default_retries; // 255 when the modem does not tell
};

constexpr unsigned PIN_CODES = 4;
struct PinRetries {
    PinRetryGroup codes[PIN_CODES]; // PIN1, PUK1, PIN2, PUK2
};

// All return a result code, wait at most AT_TIMEOUT_MS and may be called from any thread. The codes are the caller's
// texts, sent whole in double quotes and never logged; one with a double quote or a control character is refused with
// RESULT_ERROR.

// `selection` names the code that is asked for, as "SIM PIN"; null asks for all. A line without its two commas ends the
// list; a code whose attempts are missing or above 254 is not reported.
result_t at_get_remaining_pin_retries(const char *selection, PinRetries *retries);
// The caller sets both counts to -1 beforehand; a count that the modem does not give stays.
result_t at_get_sim_remaining_attempts(int32_t *pin, int32_t *puk);
result_t at_get_sim_lock_status(uint8_t *enabled);
// `mode` 1 asks for the PIN at every start, 0 does not.
result_t at_set_sim_lock_status(const char *pin, uint8_t mode);
// Enters the PIN, or with a PUK (not null) sets `pin` as the new one.
result_t at_unlock_sim(const char *pin, const char *puk);
result_t at_change_sim_pin(const char *pin, const char *new_pin);
