#include "client_transport.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

constexpr int send_timeout_ms = 5000;

// Where the next bytes of the message go and how many are missing there.
uint8_t *receive_target(ubus_context *ctx, size_t &missing)
{
    if (ctx->rx_len < message_prefix_size) {
        missing = message_prefix_size - ctx->rx_len;
        return ctx->rx_head + ctx->rx_len;
    }
    auto *blob = reinterpret_cast<blob_attr *>(ctx->rx_blob);
    size_t have = ctx->rx_len - message_header_size;
    missing = blob_raw_len(blob) - have;
    return ctx->rx_blob + have;
}

// The message's length is known: makes room for its blob.
bool begin_blob(ubus_context *ctx)
{
    auto *word = reinterpret_cast<blob_attr *>(ctx->rx_head + message_header_size);
    size_t size = blob_raw_len(word);
    if (ctx->rx_head[0] != 0 || size < sizeof(blob_attr) || size > UBUS_MAX_MSGLEN)
        return false;
    ctx->rx_blob = static_cast<uint8_t *>(malloc(size));
    if (!ctx->rx_blob)
        return false;
    memcpy(ctx->rx_blob, word, sizeof(blob_attr));
    return true;
}

} // namespace

void reset_reader(ubus_context *ctx)
{
    free(ctx->rx_blob);
    ctx->rx_blob = nullptr;
    ctx->rx_len = 0;
}

int64_t ubus_now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

client_wait wait_for_connection(ubus_context *ctx, short events, int64_t deadline)
{
    for (;;) {
        int64_t left = deadline - ubus_now_ms();
        if (left <= 0)
            return client_wait::timed_out;
        pollfd entry = {ctx->sock.fd, events, 0};
        int rc = poll(&entry, 1, static_cast<int>(left));
        if (rc > 0)
            return client_wait::ready;
        if (rc < 0 && errno != EINTR)
            return client_wait::timed_out;
    }
}

client_read read_message(ubus_context *ctx, client_message &message)
{
    while (!ctx->lost) {
        size_t missing;
        uint8_t *target = receive_target(ctx, missing);
        if (missing > 0) {
            ssize_t got = recv(ctx->sock.fd, target, missing, MSG_DONTWAIT);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return client_read::nothing;
            if (got <= 0)
                break;
            ctx->rx_len += static_cast<size_t>(got);
            if (ctx->rx_len < message_prefix_size)
                continue;
            if (!ctx->rx_blob && !begin_blob(ctx))
                break;
        }
        auto *blob = reinterpret_cast<blob_attr *>(ctx->rx_blob);
        if (ctx->rx_len < message_header_size + blob_raw_len(blob))
            continue;
        message = {read_message_header(ctx->rx_head), blob};
        ctx->rx_blob = nullptr;
        ctx->rx_len = 0;
        return client_read::message;
    }
    fail_connection(ctx);
    return client_read::lost;
}

int send_message(ubus_context *ctx, const message_header &header, blob_attr *blob)
{
    if (ctx->lost)
        return UBUS_STATUS_CONNECTION_FAILED;
    if (!blob)
        return UBUS_STATUS_NO_MEMORY;
    uint8_t head[message_header_size];
    write_message_header(head, header);
    const size_t total = sizeof head + blob_raw_len(blob);
    const int64_t deadline = ubus_now_ms() + send_timeout_ms;
    for (size_t sent = 0; sent < total;) {
        size_t head_left = sent < sizeof head ? sizeof head - sent : 0;
        size_t body_sent = sent - (sizeof head - head_left);
        iovec parts[2] = {{head + sizeof head - head_left, head_left},
                          {reinterpret_cast<uint8_t *>(blob) + body_sent, total - sizeof head - body_sent}};
        msghdr out = {};
        out.msg_iov = parts;
        out.msg_iovlen = 2;
        ssize_t count = sendmsg(ctx->sock.fd, &out, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (errno == EINTR)
            continue;
        bool full = errno == EAGAIN || errno == EWOULDBLOCK;
        client_wait result = full ? wait_for_connection(ctx, POLLOUT, deadline) : client_wait::timed_out;
        if (result != client_wait::ready) {
            fail_connection(ctx);
            return UBUS_STATUS_CONNECTION_FAILED;
        }
    }
    return UBUS_STATUS_OK;
}

void fail_connection(ubus_context *ctx)
{
    if (!ctx->lost && ctx->sock.fd >= 0)
        (void)shutdown(ctx->sock.fd, SHUT_RDWR); // already closed by the other side: nothing left to do
    ctx->lost = true;
    reset_reader(ctx);
}
