// What the client library's own sources share: one message at a time, in and out, and the wait for an answer.
#pragma once

#include "protocol.h"

extern "C" {
#include <libubus.h>
}

// A message that has arrived whole. The blob is on the heap and belongs to whoever holds this.
struct client_message {
    message_header header;
    blob_attr *blob;
};

enum class client_read {
    nothing, // no whole message yet
    message,
    lost,
};

enum class client_wait {
    ready,
    timed_out,
};

int64_t ubus_now_ms();

// Waits for events of poll() on the connection until the deadline (ubus_now_ms).
client_wait wait_for_connection(ubus_context *ctx, short events, int64_t deadline);

// Reads without waiting. Rubbish or a closed connection is `lost`; so is every read after that until a reconnection.
client_read read_message(ubus_context *ctx, client_message &message);

// Sends one message, waiting up to 5 s for room. A connection that takes only a part of it is lost.
int send_message(ubus_context *ctx, const message_header &header, blob_attr *blob);

// The connection is of no use any more; the loop learns of it through the descriptor.
void fail_connection(ubus_context *ctx);

// Acts on a message and frees it. Calls are put aside while the client waits for an answer.
void dispatch_message(ubus_context *ctx, client_message &message);

// Subscribers of an object came or went, or the target of a subscription is gone.
void take_subscription_change(ubus_context *ctx, uint8_t type, ubus_object *obj, blob_attr **tb);
// One answer to a notification: the broker's list of subscribers, or that of one of them.
void take_notify_status(ubus_request *req, uint32_t peer, blob_attr **tb);

// Serves the calls that were put aside.
void serve_pending(ubus_context *ctx);
void forget_pending(ubus_context *ctx);

// Sends a request and waits for the status that ends it. The request's callbacks and priv are the caller's.
int run_request(ubus_context *ctx, ubus_request *req, ubus_msg_type type, uint32_t peer, blob_attr *blob,
                int timeout_ms);

// Registers all objects of the context with a new broker; the first failure's status.
int register_all(ubus_context *ctx);
void forget_objects(ubus_context *ctx);

// A buffer for one message, freed with it.
struct message_buffer {
    blob_buf buf = {};

    message_buffer()
    {
        blob_buf_init(&buf, 0);
    }
    ~message_buffer()
    {
        blob_buf_free(&buf);
    }
    message_buffer(const message_buffer &) = delete;
    message_buffer &operator=(const message_buffer &) = delete;
};

constexpr int broker_timeout_ms = 5000;
