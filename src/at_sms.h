// Reading and deleting one message of the SIM (3GPP TS 27.005 3.4.3 and 3.5.4). Any thread.
#pragma once

#include <cstdint>

#include "celmux.h"

// Has the modem list the message. It is decoded and stored by the indication handler, on its way here.
result_t at_read_sms(int32_t index);
result_t at_delete_sms(int32_t index);
