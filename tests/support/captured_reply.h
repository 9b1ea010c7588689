// A test calls handlers and reads their replies as JSON. Linking this unit into a test replaces src/calls.cpp: no call
// waits.
#pragma once

#include <string>

#include "handler.h"

using Handler = int (*)(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *,
                        struct blob_attr *);

// Calls the handler with the arguments of a JSON object. The reply as JSON in one line, or "status 2" without a reply.
std::string reply_of(Handler handler, const char *arguments = "{}");
