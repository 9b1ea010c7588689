// Calls and their answers on their way between a caller and the owner of an object.
#pragma once

#include "ubusd_state.h"

// What a request's function returns that is not answered with a status now; any other value ends the request with it.
constexpr int no_status = -1;

// Whether the attribute is there and not 0.
bool flag(blob_attr *attr);

// Gives a call or a notification to an object's owner. no_status, or why it was not given.
int forward_call(bus_client &client, const message_header &header, blob_attr **tb, const bus_object &object);
// Gives the answer of an object's owner to whoever it is for; one of somebody else is dropped.
void pass_answer(bus_state &bus, bus_client &client, bus_message &message, blob_attr **tb);
void send_status(bus_client &client, uint16_t seq, uint32_t peer, int status);
