// What the handler of a method on the bus is made of: its parameters, the reading of its arguments, the building of its
// reply.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}

// Parameters of every handler.
#define HANDLER_ARGUMENTS                                                                                              \
    [[maybe_unused]] struct ubus_context *ctx, [[maybe_unused]] struct ubus_object *obj,                               \
        [[maybe_unused]] struct ubus_request_data *req, [[maybe_unused]] const char *method,                           \
        [[maybe_unused]] struct blob_attr *msg

// The members of a call's argument table in the policy's order, null where missing or mistyped. `fields` has one place
// per policy entry.
void parse_arguments(const struct blobmsg_policy *policy, int count, struct blob_attr *msg, struct blob_attr **fields);
template<size_t count>
std::array<struct blob_attr *, count> parse_arguments(const struct blobmsg_policy (&policy)[count],
                                                      struct blob_attr *msg)
{
    std::array<struct blob_attr *, count> fields;
    parse_arguments(policy, static_cast<int>(count), msg, fields.data());
    return fields;
}
// The value of an INT32 or STRING argument, or what stands for an absent one. The text points into the message.
int32_t number_or(struct blob_attr *field, int32_t absent);
const char *text_or(struct blob_attr *field, const char *absent);

// The calling thread's reply under construction. Every handler starts it with reply_begin; reply_send frees it or takes
// it over. What cannot be added for want of memory is missing from the reply.
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
