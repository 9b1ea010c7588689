// Requests of the client library: each waits for its answer.
#pragma once

#include "client_transport.h"

constexpr int broker_timeout_ms = 5000;

// Sends a request and waits for the status that ends it. The request's callbacks and priv are the caller's.
int run_request(ubus_context *ctx, ubus_request *req, ubus_msg_type type, uint32_t peer, blob_attr *blob,
                int timeout_ms);
