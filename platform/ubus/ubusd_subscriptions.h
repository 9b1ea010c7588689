// Subscriptions of objects to others, and notifications. The handlers return a status or no_status (ubusd_calls.h).
#pragma once

#include "ubusd_state.h"

int handle_subscribe(bus_state &bus, bus_client &client, blob_attr **tb);
int handle_unsubscribe(bus_state &bus, bus_client &client, blob_attr **tb);
int handle_notify(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb);
// The object goes: its targets lose a subscriber, its subscribers are told.
void end_subscriptions(bus_state &bus, bus_object &object);
