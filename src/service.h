// The service on the bus: the thread `ubus_handler`, the object "celmux", the table of its methods and the reply
// buffer.
#pragma once

#include <cstdint>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}

#include "calls.h"
#include "log.h"

void *ubus_handler(void *);
// SIGUSR1 ends the event loop; any other signal gets its default action.
void sig_handler(int sig);

// The calling thread's reply under construction. Every handler starts it with reply_begin; reply_send frees it or takes
// it over.
extern constinit thread_local struct blob_buf g_reply_buf;
void reply_begin();
void reply_add_string(const char *name, const char *text);
void reply_add_u32(const char *name, uint32_t value);
void reply_add_bool(const char *name, bool value);
// Sends the reply, or leaves it to the bus thread where the worker has called the handler. Returns 0 (UBUS_STATUS_OK).
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
