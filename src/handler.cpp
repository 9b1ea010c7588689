#include "handler.h"

#include <cstring>

constinit thread_local struct blob_buf g_reply_buf = {};
static thread_local struct blob_buf *kept;

void parse_arguments(const struct blobmsg_policy *policy, int count, struct blob_attr *msg, struct blob_attr **fields)
{
    memset(fields, 0, static_cast<size_t>(count) * sizeof *fields);
    if (msg)
        (void)blobmsg_parse(policy, count, fields, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
}

int32_t number_or(struct blob_attr *field, int32_t absent)
{
    return field ? static_cast<int32_t>(blobmsg_get_u32(field)) : absent;
}

const char *text_or(struct blob_attr *field, const char *absent)
{
    return field ? blobmsg_get_string(field) : absent;
}

void reply_begin()
{
    blob_buf_init(&g_reply_buf, 0);
}

void reply_add_string(const char *name, const char *text)
{
    (void)blobmsg_add_string(&g_reply_buf, name, text);
}

void reply_add_u32(const char *name, uint32_t value)
{
    (void)blobmsg_add_u32(&g_reply_buf, name, value);
}

void reply_add_bool(const char *name, bool value)
{
    (void)blobmsg_add_u8(&g_reply_buf, name, value);
}

void keep_replies(struct blob_buf *place)
{
    kept = place;
}

int reply_send(struct ubus_context *ctx, struct ubus_request_data *req)
{
    if (kept) {
        blob_buf_free(kept);
        *kept = g_reply_buf;
    } else {
        (void)ubus_send_reply(ctx, req, g_reply_buf.head); // a caller that went away, or a lost bus, needs no answer
        blob_buf_free(&g_reply_buf);
    }
    g_reply_buf = {};
    return UBUS_STATUS_OK;
}

int reply_result(struct ubus_context *ctx, struct ubus_request_data *req, uint32_t result)
{
    reply_begin();
    reply_add_u32("result", result);
    return reply_send(ctx, req);
}
