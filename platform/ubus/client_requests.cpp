#include "client_requests.h"

#include <poll.h>

#include "client_incoming.h"

namespace {

constexpr int default_timeout_ms = 30000;

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
}
