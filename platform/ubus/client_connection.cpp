#include "client.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int connect_timeout_ms = 2000;
constexpr int send_timeout_ms = 5000;
constexpr int messages_per_event = 64;

void reset_reader(ubus_context *ctx)
{
    free(ctx->rx_blob);
    ctx->rx_blob = nullptr;
    ctx->rx_len = 0;
}

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

void on_event(uloop_fd *sock, unsigned int)
{
    ubus_context *ctx = container_of(sock, ubus_context, sock);
    bool hung_up = sock->error;
    serve_pending(ctx);
    for (int i = 0; i < messages_per_event && !ctx->lost && !uloop_cancelled; i++) {
        client_message message;
        if (read_message(ctx, message) != client_read::message)
            break;
        dispatch_message(ctx, message);
    }
    if (!ctx->lost && !(hung_up && sock->error))
        return;
    fail_connection(ctx);
    uloop_fd_delete(sock);
    if (ctx->connection_lost)
        ctx->connection_lost(ctx);
}

void on_pending_timer(uloop_timeout *timer)
{
    serve_pending(container_of(timer, ubus_context, pending_timer));
}

void end_loop(ubus_context *)
{
    uloop_end();
}

void close_connection(ubus_context *ctx)
{
    if (ctx->sock.fd >= 0) {
        uloop_fd_delete(&ctx->sock);
        close(ctx->sock.fd);
    }
    ctx->sock.fd = -1;
    ctx->lost = true;
    reset_reader(ctx);
}

int open_socket(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    size_t length = strlen(path);
    if (length >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path, length);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // A broker that has stopped accepting must not hold the connect up.
    timeval limit = {connect_timeout_ms / 1000, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0 || fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

// Waits for the broker's first message, which tells this client's id.
bool receive_hello(ubus_context *ctx)
{
    int64_t deadline = ubus_now_ms() + connect_timeout_ms;
    client_message message;
    client_read result;
    while ((result = read_message(ctx, message)) == client_read::nothing) {
        if (wait_for_connection(ctx, POLLIN, deadline) != client_wait::ready)
            return false;
    }
    if (result == client_read::lost)
        return false;
    free(message.blob);
    ctx->local_id = message.header.peer;
    return message.header.type == UBUS_MSG_HELLO;
}

bool connect_to(ubus_context *ctx, const char *path)
{
    close_connection(ctx);
    ctx->sock.eof = false;
    ctx->sock.error = false;
    ctx->sock.fd = open_socket(path ? path : UBUS_UNIX_SOCKET);
    if (ctx->sock.fd < 0)
        return false;
    ctx->lost = false;
    if (receive_hello(ctx))
        return true;
    close_connection(ctx);
    return false;
}

} // namespace

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

extern "C" {

ubus_context *ubus_connect(const char *path)
{
    auto *ctx = static_cast<ubus_context *>(calloc(1, sizeof(ubus_context)));
    if (!ctx)
        return nullptr;
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->objects.list_head);
    INIT_LIST_HEAD(&ctx->pending);
    (void)uloop_init(); // whoever adds the connection to a loop that could not be made is told then
    ctx->sock.fd = -1;
    ctx->sock.cb = on_event;
    ctx->pending_timer.cb = on_pending_timer;
    ctx->connection_lost = end_loop;
    if (connect_to(ctx, path))
        return ctx;
    ubus_free(ctx);
    return nullptr;
}

int ubus_reconnect(ubus_context *ctx, const char *path)
{
    forget_pending(ctx);
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list)
    {
        req->status_msg = true;
        req->status_code = UBUS_STATUS_CONNECTION_FAILED;
    }
    if (!connect_to(ctx, path))
        return UBUS_STATUS_CONNECTION_FAILED;
    return register_all(ctx);
}

void ubus_free(ubus_context *ctx)
{
    if (!ctx)
        return;
    close_connection(ctx);
    uloop_timeout_cancel(&ctx->pending_timer);
    forget_pending(ctx);
    forget_objects(ctx);
    free(ctx);
}
}
