#include "client_incoming.h"

#include <cstdlib>

namespace {

// Calls put aside while this client waits; beyond it callers are told that there is no memory.
constexpr int pending_max = 256;

struct pending_call {
    list_head list;
    client_message message;
};

int deliver_notification(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                         blob_attr *msg)
{
    ubus_subscriber *sub = container_of(obj, ubus_subscriber, obj);
    return sub->cb ? sub->cb(ctx, obj, req, method, msg) : static_cast<int>(UBUS_STATUS_OK);
}

void send_status(ubus_context *ctx, uint32_t object, uint16_t seq, uint32_t peer, int status)
{
    message_buffer b;
    blob_put_int32(&b.buf, UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    blob_put_int32(&b.buf, UBUS_ATTR_OBJID, object);
    (void)send_message(ctx, {0, UBUS_MSG_STATUS, seq, peer}, b.buf.head); // a lost connection shows itself in the loop
}

ubus_object *find_object(ubus_context *ctx, uint32_t id)
{
    ubus_object *obj;
    list_for_each_entry(obj, &ctx->objects.list_head, avl.list)
    {
        if (obj->id == id)
            return obj;
    }
    return nullptr;
}

const ubus_method *find_method(const ubus_object *obj, const char *name)
{
    for (int i = 0; i < obj->n_methods; i++) {
        if (!obj->methods[i].name || strcmp(obj->methods[i].name, name) == 0)
            return &obj->methods[i];
    }
    return nullptr;
}

const char *text_or_null(blob_attr *attr)
{
    return attr ? blob_get_string(attr) : nullptr;
}

int call_handler(ubus_context *ctx, ubus_request_data *req, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    ubus_object *obj = req->object ? find_object(ctx, req->object) : nullptr;
    if (!obj)
        return UBUS_STATUS_NOT_FOUND;
    const char *name = blob_get_string(tb[UBUS_ATTR_METHOD]);
    const ubus_method *method = find_method(obj, name);
    if (!method || !method->handler)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    alignas(blob_attr) static uint8_t no_data[sizeof(blob_attr)] = {0, 0, 0, sizeof(blob_attr)};
    blob_attr *data = tb[UBUS_ATTR_DATA] ? tb[UBUS_ATTR_DATA] : reinterpret_cast<blob_attr *>(no_data);
    return method->handler(ctx, obj, req, name, data);
}

void take_subscription_change(ubus_context *ctx, uint8_t type, ubus_object *obj, blob_attr **tb)
{
    if (!obj)
        return;
    if (type == UBUS_MSG_NOTIFY && tb[UBUS_ATTR_ACTIVE]) {
        obj->has_subscribers = blob_get_u8(tb[UBUS_ATTR_ACTIVE]);
        if (obj->subscribe_cb)
            obj->subscribe_cb(ctx, obj);
    }
    if (type == UBUS_MSG_UNSUBSCRIBE && tb[UBUS_ATTR_TARGET] && obj->methods == &ubus_notification_method) {
        ubus_subscriber *sub = container_of(obj, ubus_subscriber, obj);
        if (sub->remove_cb)
            sub->remove_cb(ctx, sub, blob_get_u32(tb[UBUS_ATTR_TARGET]));
    }
}

void serve_call(ubus_context *ctx, const client_message &message)
{
    blob_attr *tb[UBUS_ATTR_MAX];
    parse_message(message.blob, blob_raw_len(message.blob), tb);
    if (message.header.type != UBUS_MSG_INVOKE) {
        const uint32_t id = tb[UBUS_ATTR_OBJID] ? blob_get_u32(tb[UBUS_ATTR_OBJID]) : 0;
        take_subscription_change(ctx, message.header.type, id ? find_object(ctx, id) : nullptr, tb);
        return;
    }
    ubus_request_data req = {};
    req.object = tb[UBUS_ATTR_OBJID] ? blob_get_u32(tb[UBUS_ATTR_OBJID]) : 0;
    req.peer = message.header.peer;
    req.seq = message.header.seq;
    req.acl.user = text_or_null(tb[UBUS_ATTR_USER]);
    req.acl.group = text_or_null(tb[UBUS_ATTR_GROUP]);
    req.fd = -1;
    req.req_fd = -1;
    bool no_reply = tb[UBUS_ATTR_NO_REPLY] && blob_get_u8(tb[UBUS_ATTR_NO_REPLY]);
    int status = call_handler(ctx, &req, tb);
    if (!req.deferred && !no_reply)
        send_status(ctx, req.object, req.seq, req.peer, status);
}

void put_aside(ubus_context *ctx, client_message &message)
{
    auto *call = ctx->n_pending < pending_max ? static_cast<pending_call *>(malloc(sizeof(pending_call))) : nullptr;
    if (!call) {
        blob_attr *tb[UBUS_ATTR_MAX];
        parse_message(message.blob, blob_raw_len(message.blob), tb);
        if (message.header.type == UBUS_MSG_INVOKE && tb[UBUS_ATTR_OBJID] && !tb[UBUS_ATTR_NO_REPLY])
            send_status(ctx, blob_get_u32(tb[UBUS_ATTR_OBJID]), message.header.seq, message.header.peer,
                        UBUS_STATUS_NO_MEMORY);
        return;
    }
    call->message = message;
    message.blob = nullptr;
    list_add_tail(&call->list, &ctx->pending);
    ctx->n_pending++;
}

bool awaits(const ubus_request *req, uint32_t peer)
{
    for (int i = 0; i < req->n_awaited; i++) {
        if (req->awaited[i] == peer)
            return true;
    }
    return !req->notify && req->peer == peer;
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

void take_answer(ubus_context *ctx, const client_message &message)
{
    ubus_request *req;
    bool found = false;
    list_for_each_entry(req, &ctx->requests, list)
    {
        found = req->seq == message.header.seq && !req->status_msg && awaits(req, message.header.peer);
        if (found)
            break;
    }
    if (!found)
        return;
    blob_attr *tb[UBUS_ATTR_MAX];
    parse_message(message.blob, blob_raw_len(message.blob), tb);
    if (message.header.type == UBUS_MSG_STATUS && req->notify) {
        take_notify_status(req, message.header.peer, tb);
    } else if (message.header.type == UBUS_MSG_STATUS) {
        req->status_code = tb[UBUS_ATTR_STATUS] ? static_cast<int>(blob_get_u32(tb[UBUS_ATTR_STATUS]))
                                                : static_cast<int>(UBUS_STATUS_INVALID_ARGUMENT);
        req->status_msg = true;
    } else if (req->raw_data_cb) {
        req->raw_data_cb(req, message.header.type, message.blob);
    } else if (req->data_cb) {
        req->data_cb(req, message.header.type, tb[UBUS_ATTR_DATA]);
    }
}

} // namespace

const ubus_method ubus_notification_method = UBUS_METHOD_NOARG(nullptr, deliver_notification);

void dispatch_message(ubus_context *ctx, client_message &message)
{
    switch (message.header.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        take_answer(ctx, message);
        break;
    case UBUS_MSG_INVOKE:
    case UBUS_MSG_NOTIFY:
    case UBUS_MSG_UNSUBSCRIBE:
        if (ctx->stack_depth > 0)
            put_aside(ctx, message);
        else
            serve_call(ctx, message);
        break;
    default: // nothing that this client has asked for
        break;
    }
    free(message.blob);
}

void serve_pending(ubus_context *ctx)
{
    while (!list_empty(&ctx->pending) && ctx->stack_depth == 0) {
        auto *call = list_first_entry(&ctx->pending, pending_call, list);
        list_del(&call->list);
        ctx->n_pending--;
        serve_call(ctx, call->message);
        free(call->message.blob);
        free(call);
        if (uloop_cancelled)
            break;
    }
}

void forget_pending(ubus_context *ctx)
{
    while (!list_empty(&ctx->pending)) {
        auto *call = list_first_entry(&ctx->pending, pending_call, list);
        list_del(&call->list);
        free(call->message.blob);
        free(call);
    }
    ctx->n_pending = 0;
}

extern "C" {

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg)
{
    if (!msg)
        return UBUS_STATUS_INVALID_ARGUMENT;
    message_buffer b;
    if (!blob_put_int32(&b.buf, UBUS_ATTR_OBJID, req->object) ||
        !blob_put(&b.buf, UBUS_ATTR_DATA, blob_data(msg), static_cast<unsigned int>(blob_len(msg))))
        return UBUS_STATUS_NO_MEMORY;
    return send_message(ctx, {0, UBUS_MSG_DATA, req->seq, req->peer}, b.buf.head);
}

void ubus_defer_request(ubus_context *, ubus_request_data *req, ubus_request_data *new_req)
{
    req->deferred = true;
    *new_req = *req;
    new_req->acl = {}; // its texts go with the message
}

void ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret)
{
    send_status(ctx, req->object, req->seq, req->peer, ret);
}
}
