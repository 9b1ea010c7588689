#include "client_incoming.h"
#include "client_requests.h"

namespace {

int request_subscription(ubus_context *ctx, ubus_subscriber *sub, uint32_t id, ubus_msg_type type)
{
    message_buffer b;
    if (!blob_put_int32(&b.buf, UBUS_ATTR_OBJID, sub->obj.id) || !blob_put_int32(&b.buf, UBUS_ATTR_TARGET, id))
        return UBUS_STATUS_NO_MEMORY;
    ubus_request req = {};
    return run_request(ctx, &req, type, 0, b.buf.head, broker_timeout_ms);
}

} // namespace

extern "C" {

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *sub)
{
    if (sub->new_obj_cb)
        return UBUS_STATUS_NOT_SUPPORTED;
    INIT_LIST_HEAD(&sub->list);
    sub->obj.methods = &ubus_notification_method;
    sub->obj.n_methods = 1;
    return ubus_add_object(ctx, &sub->obj);
}

int ubus_subscribe(ubus_context *ctx, ubus_subscriber *sub, uint32_t id)
{
    return request_subscription(ctx, sub, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(ubus_context *ctx, ubus_subscriber *sub, uint32_t id)
{
    return request_subscription(ctx, sub, id, UBUS_MSG_UNSUBSCRIBE);
}

int ubus_notify(ubus_context *ctx, ubus_object *obj, const char *type, blob_attr *msg, int timeout)
{
    message_buffer b;
    const uint8_t no_reply = 1;
    bool fits = blob_put_int32(&b.buf, UBUS_ATTR_OBJID, obj->id) && blob_put_string(&b.buf, UBUS_ATTR_METHOD, type) &&
                blob_put(&b.buf, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr,
                         msg ? static_cast<unsigned int>(blob_len(msg)) : 0) &&
                (timeout >= 0 || blob_put(&b.buf, UBUS_ATTR_NO_REPLY, &no_reply, 1));
    if (!fits)
        return UBUS_STATUS_NO_MEMORY;
    if (timeout < 0)
        return send_message(ctx, {0, UBUS_MSG_NOTIFY, ++ctx->request_seq, obj->id}, b.buf.head);
    ubus_request req = {};
    req.notify = true;
    req.awaited[req.n_awaited++] = obj->id;
    return run_request(ctx, &req, UBUS_MSG_NOTIFY, obj->id, b.buf.head, timeout);
}
}
