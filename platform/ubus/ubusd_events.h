// Events: patterns of those who want them, and their delivery.
#pragma once

#include "ubusd_state.h"

#include <string_view>

// A call of the bus's own object for events: "register" or "send". Returns a status.
int handle_event_call(bus_state &bus, bus_client &client, std::string_view method, blob_attr *data);
// Tells of an object that has come or gone: `id` is the event's name.
void send_object_event(bus_state &bus, const char *id, uint32_t object, const std::string &path);
