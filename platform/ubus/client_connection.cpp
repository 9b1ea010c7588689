#include "client_incoming.h"
#include "client_objects.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int connect_timeout_ms = 2000;
constexpr int messages_per_event = 64;

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
