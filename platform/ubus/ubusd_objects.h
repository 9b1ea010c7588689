// Objects come, are looked up and go. The handlers return a status.
#pragma once

#include "ubusd_state.h"

int handle_lookup(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb);
int handle_add_object(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb);
int handle_remove_object(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb);
// Takes the object and what depends on it off the bus. The owner's own set of objects is the caller's to update.
void forget_object(bus_state &bus, bus_object &object);
