#include "captured_reply.h"

#include <cstdlib>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "calls.h"

bool call_waits(struct ubus_context *, struct ubus_request_data *, struct blob_attr *, uint32_t, uint32_t)
{
    return false;
}

std::string reply_of(Handler handler, const char *arguments)
{
    struct blob_buf message = {}, reply = {};
    blob_buf_init(&message, 0);
    if (!blobmsg_add_json_from_string(&message, arguments))
        abort();
    keep_replies(&reply);
    int status = handler(nullptr, nullptr, nullptr, "", message.head);
    keep_replies(nullptr);
    blob_buf_free(&message);
    std::string text;
    if (reply.head) {
        char *json = blobmsg_format_json(reply.head, true);
        text = json;
        free(json);
        blob_buf_free(&reply);
    }
    return status == UBUS_STATUS_OK ? text : text + "status " + std::to_string(status);
}
