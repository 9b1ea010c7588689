// The objects that the client library offers on the bus.
#pragma once

extern "C" {
#include <libubus.h>
}

// Registers all objects of the context with a new broker; the first failure's status.
int register_all(ubus_context *ctx);
void forget_objects(ubus_context *ctx);
