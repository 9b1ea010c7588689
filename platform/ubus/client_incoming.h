// What arrives for the client library: answers to its requests, calls of its objects, news about subscriptions.
#pragma once

#include "client_transport.h"

// The one method of every subscriber's object: it takes all notifications.
extern const ubus_method ubus_notification_method;

// Acts on a message and frees it. Calls are put aside while the client waits for an answer.
void dispatch_message(ubus_context *ctx, client_message &message);

// Serves the calls that were put aside.
void serve_pending(ubus_context *ctx);
void forget_pending(ubus_context *ctx);
