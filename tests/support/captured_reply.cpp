#include "captured_reply.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <libubox/blobmsg_json.h>
}

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

int reply_send(struct ubus_context *, struct ubus_request_data *)
{
    char *json = blobmsg_format_json(g_reply_buf.head, true);
    last_reply += json;
    free(json);
    blob_buf_free(&g_reply_buf);
    return UBUS_STATUS_OK;
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
