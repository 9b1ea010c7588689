// What the modem says of itself: announced and listed messages, the SIM, packet data context 1, the result of a network
// scan (3GPP TS 27.005 and 27.007). Runs on the thread resp_processor and never waits for a consumer.
#pragma once

#include "celmux.h"

constexpr size_t APN_SIZE = 64;

// APN of PDP context 1, empty when unknown; written by handle_indications alone.
extern char g_apn[APN_SIZE];

// Acts on every line of a block, solicited or not. Messages in it are in the store and on the disk when this returns,
// but those that the requester reads for itself (message_fetch.h). A block that holds the prompt or a "+CMGS:" line is
// passed on to resp_queue: its text is null then. Otherwise the text is as it was.
void handle_indications(TextElem *block);
