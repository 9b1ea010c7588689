#include "client.h"

#include <climits>
#include <cstdlib>
#include <poll.h>

namespace {

// Calls put aside while this client waits; beyond it callers are told that there is no memory.
constexpr int pending_max = 256;
constexpr int default_timeout_ms = 30000;

struct pending_call {
    list_head list;
    client_message message;
};

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

int wait_for_status(ubus_context *ctx, ubus_request *req, int64_t deadline)
{
    for (;;) {
        client_message message;
        client_read result = client_read::nothing;
        while (!req->status_msg && (result = read_message(ctx, message)) == client_read::message) {
            dispatch_message(ctx, message);
            if (ubus_now_ms() > deadline) // whatever else keeps arriving
                break;
        }
        if (req->status_msg)
            return req->status_code;
        if (result == client_read::lost)
            return UBUS_STATUS_CONNECTION_FAILED;
        switch (wait_for_connection(ctx, POLLIN, deadline)) {
        case client_wait::ready:
            break;
        case client_wait::timed_out:
            return UBUS_STATUS_TIMEOUT;
        }
    }
}

} // namespace

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

int run_request(ubus_context *ctx, ubus_request *req, ubus_msg_type type, uint32_t peer, blob_attr *blob,
                int timeout_ms)
{
    const int64_t deadline = ubus_now_ms() + timeout_ms;
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ++ctx->request_seq;
    list_add_tail(&req->list, &ctx->requests);
    int status = send_message(ctx, {0, static_cast<uint8_t>(type), req->seq, peer}, blob);
    if (status == UBUS_STATUS_OK) {
        ctx->stack_depth++;
        status = wait_for_status(ctx, req, deadline);
        ctx->stack_depth--;
    }
    list_del(&req->list);
    if (!list_empty(&ctx->pending))
        uloop_timeout_set(&ctx->pending_timer, 0);
    return status;
}

extern "C" {

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg, ubus_data_handler_t cb, void *priv,
                int timeout_ms)
{
    message_buffer b;
    bool fits = blob_put_int32(&b.buf, UBUS_ATTR_OBJID, obj) && blob_put_string(&b.buf, UBUS_ATTR_METHOD, method) &&
                blob_put(&b.buf, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr,
                         msg ? static_cast<unsigned int>(blob_len(msg)) : 0);
    if (!fits)
        return UBUS_STATUS_NO_MEMORY;
    ubus_request req = {};
    req.data_cb = cb;
    req.priv = priv;
    return run_request(ctx, &req, UBUS_MSG_INVOKE, obj, b.buf.head, timeout_ms > 0 ? timeout_ms : default_timeout_ms);
}

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
