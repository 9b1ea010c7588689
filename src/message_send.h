// The method that sends a text message: as many PDUs as the text takes (3GPP TS 23.040 9.2.2.2), each submitted with
// AT+CMGS. Runs on the ubus thread.
#pragma once

#include "handler.h"

int handle_send_message(HANDLER_ARGUMENTS);

extern const struct blobmsg_policy policy_send_message[3];

// Submits one PDU in hexadecimal; `length` is the number of octets without the service-centre address. 0 when the modem
// accepted it.
int at_send_message(const char *pdu, int length);
