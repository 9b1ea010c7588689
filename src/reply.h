// Replies to callers on the bus, and what their arguments are.
#pragma once

#include <cstdint>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}

// The calling thread's reply under construction. Every handler starts it with reply_begin; reply_send frees it or takes
// it over.
extern constinit thread_local struct blob_buf g_reply_buf;
void reply_begin();
void reply_add_string(const char *name, const char *text);
void reply_add_u32(const char *name, uint32_t value);
void reply_add_bool(const char *name, bool value);
// The calling thread's replies are not sent but put into *place, in the stead of what it holds; null: they are sent.
void keep_replies(struct blob_buf *place);
// Sends the reply, or keeps it. Returns 0 (UBUS_STATUS_OK).
int reply_send(struct ubus_context *ctx, struct ubus_request_data *req);
// The whole reply of most setters: "result" alone. Returns 0 (UBUS_STATUS_OK).
int reply_result(struct ubus_context *ctx, struct ubus_request_data *req, uint32_t result);

// Members of a call's argument table, null where missing or mistyped. `fields` has one place per policy entry.
void parse_arguments(const struct blobmsg_policy *policy, int count, struct blob_attr *msg, struct blob_attr **fields);

// Parameters of every handler.
#define HANDLER_ARGUMENTS                                                                                              \
    [[maybe_unused]] struct ubus_context *ctx, [[maybe_unused]] struct ubus_object *obj,                               \
        [[maybe_unused]] struct ubus_request_data *req, [[maybe_unused]] const char *method,                           \
        [[maybe_unused]] struct blob_attr *msg
