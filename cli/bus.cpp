#include "bus.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>

extern "C" {
#include <libubus.h>
}

#include "command.h"

constexpr int WAIT_SLICE_MS = 500; // a signal that comes just before a wait begins is seen after it

static ubus_context *bus = nullptr;
static uint32_t object_id = 0;
static bool connection_lost = false;
static bool happened = false;
static volatile sig_atomic_t interrupted = 0;
static volatile sig_atomic_t socket_in_call = -1; // a signal hangs up on it, which ends the call
static bool signals_caught = false;

static struct {
    ubus_event_handler event;
    EventHandler handler;
    void *priv;
} listener;

int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

Reply::~Reply()
{
    free(data);
}

blob_attr *Reply::member(const char *name) const
{
    blob_attr *position;
    size_t left;
    blob_for_each_attr(position, data, left)
    {
        if (blobmsg_check_attr(position, true) && strcmp(blobmsg_name(position), name) == 0)
            return position;
    }
    return nullptr;
}

const char *Reply::text(const char *name) const
{
    blob_attr *found = member(name);
    return found && blobmsg_type(found) == BLOBMSG_TYPE_STRING ? blobmsg_get_string(found) : nullptr;
}

std::optional<int32_t> Reply::number(const char *name) const
{
    blob_attr *found = member(name);
    if (!found)
        return std::nullopt;
    switch (blobmsg_type(found)) {
    case BLOBMSG_TYPE_INT32:
        return static_cast<int32_t>(blobmsg_get_u32(found));
    case BLOBMSG_TYPE_INT16:
        return static_cast<int16_t>(blobmsg_get_u16(found));
    case BLOBMSG_TYPE_INT8:
        return blobmsg_get_u8(found);
    default:
        return std::nullopt;
    }
}

CallArguments::CallArguments()
{
    blob_buf_init(&buf, 0);
}

CallArguments::~CallArguments()
{
    blob_buf_free(&buf);
}

void CallArguments::text(const char *name, const char *value)
{
    blobmsg_add_string(&buf, name, value);
}

void CallArguments::number(const char *name, int32_t value)
{
    blobmsg_add_u32(&buf, name, static_cast<uint32_t>(value));
}

static void on_connection_lost(ubus_context *)
{
    connection_lost = true;
    uloop_end();
}

// A bus status. The library takes over the signals that would end the program and then does not look at them during a
// call: they stay as they were.
static int connect()
{
    if (bus)
        return UBUS_STATUS_OK;
    struct sigaction interrupt, terminate;
    sigaction(SIGINT, nullptr, &interrupt);
    sigaction(SIGTERM, nullptr, &terminate);
    errno = 0;
    bus = ubus_connect(options.socket);
    const bool forbidden = !bus && errno == EACCES;
    sigaction(SIGINT, &interrupt, nullptr);
    sigaction(SIGTERM, &terminate, nullptr);
    if (!bus)
        return forbidden ? UBUS_STATUS_PERMISSION_DENIED : UBUS_STATUS_CONNECTION_FAILED;
    bus->connection_lost = on_connection_lost;
    return UBUS_STATUS_OK;
}

// The broker answers who may call nothing of an object as if it had found it, and shows him nothing.
static int find_object()
{
    if (object_id)
        return UBUS_STATUS_OK;
    int status = ubus_lookup_id(bus, "celmux", &object_id);
    return status == UBUS_STATUS_OK && !object_id ? int{UBUS_STATUS_PERMISSION_DENIED} : status;
}

static void keep_answer(ubus_request *request, int, blob_attr *message)
{
    Reply &reply = *static_cast<Reply *>(request->priv);
    reply.answered = true;
    if (!message || reply.data)
        return;
    size_t size = blob_pad_len(message);
    reply.data = static_cast<blob_attr *>(malloc(size));
    if (reply.data)
        memcpy(reply.data, message, size);
}

static int invoke(const char *method, const CallArguments *arguments, Reply &reply, int timeout_ms)
{
    if (interrupted)
        return UBUS_STATUS_UNKNOWN_ERROR;
    int status = connection_lost ? int{UBUS_STATUS_CONNECTION_FAILED} : connect();
    if (status != UBUS_STATUS_OK)
        return status;
    CallArguments none;
    socket_in_call = signals_caught ? bus->sock.fd : -1;
    status = interrupted ? int{UBUS_STATUS_UNKNOWN_ERROR} : find_object();
    if (status == UBUS_STATUS_OK)
        status = ubus_invoke(bus, object_id, method, arguments ? arguments->buf.head : none.buf.head, keep_answer,
                             &reply, timeout_ms);
    socket_in_call = -1;
    return status;
}

bool bus_call_within(const char *method, const CallArguments *arguments, Reply &reply, int timeout_ms)
{
    int64_t began = now_ms();
    reply.bus_status = invoke(method, arguments, reply, std::max(timeout_ms, 1));
    reply.elapsed_ms = static_cast<int>(now_ms() - began);
    reply.result = reply.number("result").value_or(0);
    return reply.done();
}

bool bus_call(const char *method, const CallArguments *arguments, Reply &reply, int timeout_ms)
{
    return bus_call_within(method, arguments, reply, options.timeout_ms ? options.timeout_ms : timeout_ms);
}

bool bus_at_command(const char *command, Reply &reply, int modem_timeout_ms)
{
    constexpr int32_t REFUSED = -1;
    constexpr int32_t NO_ANSWER = 65537;
    constexpr int DAEMON_MS = 2000; // beyond the modem's time
    int limit = options.timeout_ms ? options.timeout_ms : modem_timeout_ms;
    CallArguments arguments;
    arguments.text("at", command);
    arguments.number("timeout_ms", limit);
    (void)bus_call_within("at_passthrough", &arguments, reply, limit + DAEMON_MS); // done() tells
    if (reply.result == REFUSED)
        reply.result = NO_ANSWER;
    return reply.done();
}

static void on_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *message)
{
    if (listener.handler(type, message, listener.priv)) {
        happened = true;
        uloop_end();
    }
}

int bus_listen(const char *pattern, EventHandler handler, void *priv)
{
    if (int status = connect())
        return status;
    listener.handler = handler;
    listener.priv = priv;
    listener.event.cb = on_event;
    return ubus_register_event_handler(bus, &listener.event, pattern);
}

static void on_signal(int)
{
    interrupted = 1;
    uloop_cancelled = true;
    if (socket_in_call != -1)
        (void)shutdown(socket_in_call, SHUT_RDWR);
}

static void catch_signals()
{
    if (signals_caught)
        return;
    signals_caught = true;
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

WaitEnd bus_wait(int timeout_ms)
{
    int64_t deadline = now_ms() + timeout_ms;
    catch_signals();
    uloop_init();
    if (bus && !connection_lost)
        ubus_add_uloop(bus);
    happened = false;
    for (;;) {
        int64_t left = deadline - now_ms();
        if (interrupted)
            return WaitEnd::interrupted;
        if (connection_lost)
            return WaitEnd::connection_lost;
        if (left <= 0)
            return WaitEnd::timed_out;
        int sig = uloop_run_timeout(static_cast<int>(std::min<int64_t>(left, WAIT_SLICE_MS)));
        if (sig == SIGINT || sig == SIGTERM)
            interrupted = 1;
        if (happened)
            return WaitEnd::happened;
    }
}

bool bus_interrupted()
{
    return interrupted;
}

void bus_close()
{
    if (bus)
        ubus_free(bus);
    bus = nullptr;
    object_id = 0;
    connection_lost = false;
}
