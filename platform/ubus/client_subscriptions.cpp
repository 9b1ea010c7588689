#include "client.h"

namespace {

int deliver_notification(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                         blob_attr *msg)
{
    ubus_subscriber *sub = container_of(obj, ubus_subscriber, obj);
    return sub->cb ? sub->cb(ctx, obj, req, method, msg) : static_cast<int>(UBUS_STATUS_OK);
}

const ubus_method notification_method = UBUS_METHOD_NOARG(nullptr, deliver_notification);

int request_subscription(ubus_context *ctx, ubus_subscriber *sub, uint32_t id, ubus_msg_type type)
{
    message_buffer b;
    if (!blob_put_int32(&b.buf, UBUS_ATTR_OBJID, sub->obj.id) || !blob_put_int32(&b.buf, UBUS_ATTR_TARGET, id))
        return UBUS_STATUS_NO_MEMORY;
    ubus_request req = {};
    return run_request(ctx, &req, type, 0, b.buf.head, broker_timeout_ms);
}

} // namespace

void take_subscription_change(ubus_context *ctx, uint8_t type, ubus_object *obj, blob_attr **tb)
{
    if (!obj)
        return;
    if (type == UBUS_MSG_NOTIFY && tb[UBUS_ATTR_ACTIVE]) {
        obj->has_subscribers = blob_get_u8(tb[UBUS_ATTR_ACTIVE]);
        if (obj->subscribe_cb)
            obj->subscribe_cb(ctx, obj);
    }
    if (type == UBUS_MSG_UNSUBSCRIBE && tb[UBUS_ATTR_TARGET] && obj->methods == &notification_method) {
        ubus_subscriber *sub = container_of(obj, ubus_subscriber, obj);
        if (sub->remove_cb)
            sub->remove_cb(ctx, sub, blob_get_u32(tb[UBUS_ATTR_TARGET]));
    }
}

void take_notify_status(ubus_request *req, uint32_t peer, blob_attr **tb)
{
    for (int i = 0; i < req->n_awaited; i++) {
        if (req->awaited[i] != peer)
            continue;
        req->awaited[i] = req->awaited[--req->n_awaited];
        break;
    }
    blob_attr *subscriber;
    size_t left;
    if (peer == req->peer && tb[UBUS_ATTR_SUBSCRIBERS]) { // of the broker: whose answers will come
        blob_for_each_attr(subscriber, tb[UBUS_ATTR_SUBSCRIBERS], left)
        {
            if (blob_len(subscriber) == sizeof(uint32_t) && req->n_awaited < UBUS_MAX_NOTIFY_PEERS)
                req->awaited[req->n_awaited++] = blob_get_u32(subscriber);
        }
    }
    req->status_msg = req->n_awaited == 0;
}

extern "C" {

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *sub)
{
    if (sub->new_obj_cb)
        return UBUS_STATUS_NOT_SUPPORTED;
    INIT_LIST_HEAD(&sub->list);
    sub->obj.methods = &notification_method;
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
