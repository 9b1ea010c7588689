// The client library's connection: one message at a time, in and out.
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

// Drops what has arrived of a message that is not whole.
void reset_reader(ubus_context *ctx);

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
