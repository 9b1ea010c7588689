#include "captured_reply.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <libubox/blobmsg_json.h>
}

constinit thread_local struct blob_buf g_reply_buf = {};
static std::string last_reply;

void *ubus_handler(void *)
{
    return nullptr;
}

void sig_handler(int) {}

bool call_waits(struct ubus_context *, struct ubus_request_data *, struct blob_attr *, uint32_t, uint32_t)
{
    return false;
}

void reply_begin()
{
    blob_buf_init(&g_reply_buf, 0);
}

void reply_add_string(const char *name, const char *text)
{
    blobmsg_add_string(&g_reply_buf, name, text);
}

void reply_add_u32(const char *name, uint32_t value)
{
    blobmsg_add_u32(&g_reply_buf, name, value);
}

void reply_add_bool(const char *name, bool value)
{
    blobmsg_add_u8(&g_reply_buf, name, value);
}

int reply_send(struct ubus_context *, struct ubus_request_data *)
{
    char *json = blobmsg_format_json(g_reply_buf.head, true);
    last_reply += json;
    free(json);
    blob_buf_free(&g_reply_buf);
    return UBUS_STATUS_OK;
}

int reply_result(struct ubus_context *ctx, struct ubus_request_data *req, uint32_t result)
{
    reply_begin();
    reply_add_u32("result", result);
    return reply_send(ctx, req);
}

void parse_arguments(const struct blobmsg_policy *policy, int count, struct blob_attr *msg, struct blob_attr **fields)
{
    blobmsg_parse(policy, count, fields, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
}

std::string reply_of(Handler handler, const char *arguments)
{
    struct blob_buf message = {};
    blob_buf_init(&message, 0);
    if (!blobmsg_add_json_from_string(&message, arguments))
        abort();
    last_reply.clear();
    int status = handler(nullptr, nullptr, nullptr, "", message.head);
    blob_buf_free(&message);
    return status == UBUS_STATUS_OK ? last_reply : last_reply + "status " + std::to_string(status);
}
