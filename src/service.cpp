// Runs on the thread ubus_handler, inside the event loop; what would keep it waiting goes to the worker of calls.cpp.

#include "service.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "calls.h"
#include "log.h"
#include "message_store.h"
#include "method_table.h"
#include "uci_access.h"
#include "waiting.h"
#include "wanmd.h"

constexpr char FIRST_START_MARKER[] = "/tmp/celmuxd_init";
constexpr int RECONNECT_MS = 1000;
constexpr int64_t LEAVING_MS = 500; // what taking leave of the broker may take

static struct ubus_method methods[METHOD_COUNT];
static struct ubus_object_type celmux_type;
static struct ubus_object celmux_object;
static struct ubus_context *bus;
static bool connection_lost;
static struct uloop_timeout reconnect_timer;
static struct uloop_fd stop_watch;
static std::atomic<int64_t> undisturbed_until{0}; // monotonic ms

void sig_handler(int sig)
{
    if (sig == SIGUSR1) {
        if (monotonic_ms() >= undisturbed_until.load())
            uloop_cancelled = true;
        return;
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

static void handle_signal(int sig, siginfo_t *, void *)
{
    sig_handler(sig);
}

static bool take_stop_signal()
{
    // The signal handler is set up first: a stop may have come before this thread started, and its signal is delivered
    // as soon as it is unblocked.
    struct sigaction action = {};
    action.sa_sigaction = handle_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    if (sigaction(SIGUSR1, &action, nullptr) == -1) {
        CELMUX_LOG(LOG_ERR, "sigaction failed", "ubus_handler");
        return false;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    if (pthread_sigmask(SIG_UNBLOCK, &set, nullptr) != 0) {
        CELMUX_LOG(LOG_ERR, "pthread_sigmask failed", "ubus_handler");
        return false;
    }
    return true;
}

static void add_object()
{
    if (celmux_object.id)
        return;
    int status = ubus_add_object(bus, &celmux_object);
    if (status)
        CELMUX_LOG(LOG_ERR, "failed to add object: %s", "server_main", ubus_strerror(status));
}

// The broker may restart while the daemon runs. The daemon connects again at once, and then tries every second.
static void reconnect(struct uloop_timeout *timer)
{
    if (connection_lost && ubus_reconnect(bus, nullptr) != 0) {
        uloop_timeout_set(timer, RECONNECT_MS);
        return;
    }
    connection_lost = false;
    ubus_add_uloop(bus);
    add_object(); // only where it never came to be registered; ubus_reconnect brings the others back
}

static void on_connection_lost(struct ubus_context *)
{
    log_error("connection to ubus lost");
    connection_lost = true;
    drop_calls();
    uloop_timeout_set(&reconnect_timer, 1);
}

static void on_stop(struct uloop_fd *, unsigned)
{
    uloop_end();
}

static int serve_method(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                        const char *method, struct blob_attr *msg)
{
    for (const MethodRow &row : method_rows) {
        if (strcmp(row.name, method) == 0)
            return serve_call(row, ctx, obj, req, msg);
    }
    return UBUS_STATUS_METHOD_NOT_FOUND;
}

static void describe_object()
{
    for (size_t i = 0; i < METHOD_COUNT; i++) {
        const MethodRow &row = method_rows[i];
        methods[i].name = row.name;
        methods[i].handler = serve_method;
        methods[i].policy = row.policy;
        methods[i].n_policy = row.policy_count;
    }
    celmux_type.name = "celmux";
    celmux_type.methods = methods;
    celmux_type.n_methods = static_cast<int>(METHOD_COUNT);
    celmux_object.name = "celmux";
    celmux_object.type = &celmux_type;
    celmux_object.methods = methods;
    celmux_object.n_methods = static_cast<int>(METHOD_COUNT);
}

// Everybody may write to this folder. Whatever has that name already, even a link, is left as it is.
static bool mark_first_start()
{
    int fd = open(FIRST_START_MARKER, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    int error = errno;
    if (fd != -1)
        close(fd);
    else if (error != EEXIST)
        log_error("cannot write %s, errno: %d", FIRST_START_MARKER, error);
    return fd != -1 || error != EEXIST;
}

// The first start since boot leaves the connection down where the owner switched autoconnect off.
static void first_start()
{
    uint8_t autoconnect = 1;
    if (uci_get_autoconnect(&autoconnect) != 0 || !mark_first_start())
        return;
    if (!autoconnect)
        wanmd_control(0);
}

// Callers get their answers before the connection ends: the broker drops what it has not read by then. It has once it
// has answered that the object is gone, so that answer is worth not being woken up for.
static void take_leave()
{
    answer_calls_for_stop();
    undisturbed_until.store(monotonic_ms() + LEAVING_MS);
    uloop_cancelled = false;
    if (!connection_lost && celmux_object.id)
        (void)ubus_remove_object(bus, &celmux_object);
}

static void serve()
{
    describe_object();
    reconnect_timer.cb = reconnect;
    stop_watch.fd = stop_event_fd();
    stop_watch.cb = on_stop;
    uloop_fd_add(&stop_watch, ULOOP_READ);
    bus->connection_lost = on_connection_lost;
    if (start_calls(bus) != 0)
        CELMUX_LOG(LOG_ERR, "no thread for calls that wait", "ubus_handler");
    if (running.load())
        add_object();
    uloop_run();
    uloop_timeout_cancel(&reconnect_timer);
    uloop_fd_delete(&stop_watch);
    take_leave();
}

// The broker may not be there yet; the daemon then tries again.
static bool connect_to_bus()
{
    bus = ubus_connect(nullptr);
    if (!bus)
        CELMUX_LOG(LOG_ERR, "failed to connect to ubus", "ubus_handler");
    static std::atomic<uint8_t> *const flags[] = {&t_processor_ready, &t_listener_ready, &t_sender_ready,
                                                  &t_requester_ready};
    if (wait_ready(flags, 4))
        first_start();
    while (!bus && sleep_while_running(RECONNECT_MS))
        bus = ubus_connect(nullptr);
    return bus;
}

void *ubus_handler(void *)
{
    if (!take_stop_signal())
        return nullptr;
    signal(SIGPIPE, SIG_IGN);
    bool connected = connect_to_bus();
    if (connected) {
        uloop_init();
        ubus_add_uloop(bus);
        serve();
    }
    log_info("%s thread exit gracefully", __func__);
    if (connected) {
        ubus_free(bus);
        end_calls();
        uloop_done();
    }
    save_and_free_messages();
    return nullptr;
}
