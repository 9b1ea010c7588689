#include "calls.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "call_limit.h"
#include "handler.h"
#include "link.h"
#include "log.h"
#include "mutex_lock.h"
#include "result.h"
#include "waiting.h"

constexpr size_t MOST_WAITING_BYTES = 2u << 20; // of arguments; one message has up to half of that
constexpr int64_t LOOK_AGAIN_MS = 100; // calls that have waited long may be over as soon as the modem falls silent
constexpr int64_t STOP_PATIENCE_MS = 1000;

enum class State : uint8_t {
    empty,
    waiting,
    taken, // by the worker
    done,  // carried out
    over,  // its time is over; the bus thread gives the reply of a failure
};

struct Call {
    State state;
    bool wanted; // false when the connection that it came by is lost, or its answer has been given
    uint64_t number;
    int64_t came_ms;
    uint32_t own_ms, patience_ms;
    const MethodRow *row;
    const Call *twin; // done: the call whose reply answers this one as well; itself when it was carried out
    int status;
    struct blob_attr *msg;
    struct blob_buf reply; // no memory: no reply
    struct ubus_request_data request;
};

// The worker owns a call that is taken, the bus thread one that is done or over; calls_mutex guards everything else.
// Held for a few lines, never with another lock.
static pthread_mutex_t calls_mutex = PTHREAD_MUTEX_INITIALIZER;
static std::array<Call, MOST_WAITING_CALLS> calls;
static uint64_t last_number;
static size_t waiting_bytes;
static bool stopping;
static std::atomic<uint32_t> work_word{0}; // moves with every call that comes, and at the stop

// The bus thread's own.
static struct ubus_context *bus;
static struct uloop_fd done_watch = {};
static struct uloop_timeout over_timer = {};
static pthread_t worker;
static bool worker_started;

// The row of the call that has come to this thread and may still be put aside; null otherwise.
static thread_local const MethodRow *arriving;

struct CallsLock : MutexLock {
    CallsLock() : MutexLock(&calls_mutex) {}
};

int serve_call(const MethodRow &row, struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
               struct blob_attr *msg)
{
    const char *name = row.log_name ? row.log_name : row.name;
    CELMUX_LOG(LOG_INFO, "%s enter", name, name);
    arriving = &row;
    bool aside = row.kind == Kind::query && call_waits(ctx, req, msg);
    int status = aside ? static_cast<int>(UBUS_STATUS_OK) : row.handler(ctx, obj, req, row.name, msg);
    arriving = nullptr;
    limit_requests(NO_CALL_LIMIT);
    return status;
}

static bool turn_is_over(const Call &call, int64_t now)
{
    return now - call.came_ms >= (link_silent() ? call.own_ms : call.patience_ms);
}

static void wake_worker()
{
    work_word.fetch_add(1);
    wake_word(&work_word);
}

// Sets the timer to the next moment at which a waiting call may be over. False when none waits.
static bool set_over_timer()
{
    int64_t now = monotonic_ms(), next = INT64_MAX;
    {
        CallsLock lock;
        for (const Call &call : calls) {
            if (call.state == State::waiting)
                next = std::min(next, call.came_ms + call.own_ms);
        }
    }
    if (next == INT64_MAX)
        uloop_timeout_cancel(&over_timer);
    else
        uloop_timeout_set(&over_timer, static_cast<int>(next > now ? next - now : LOOK_AGAIN_MS));
    return next != INT64_MAX;
}

static struct blob_attr *copy_of(const struct blob_attr *msg)
{
    void *copy = malloc(blob_raw_len(msg));
    return static_cast<struct blob_attr *>(copy ? memcpy(copy, msg, blob_raw_len(msg)) : nullptr);
}

// A free entry for one more call, or null. The caller holds the lock.
static Call *free_place(size_t bytes)
{
    if (stopping || !worker_started || waiting_bytes + bytes > MOST_WAITING_BYTES)
        return nullptr;
    auto place = std::find_if(calls.begin(), calls.end(), [](const Call &call) { return call.state == State::empty; });
    return place == calls.end() ? nullptr : place;
}

static bool put_aside(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg, uint32_t own_ms,
                      uint32_t patience_ms)
{
    size_t bytes = msg ? blob_raw_len(msg) : 0;
    {
        CallsLock lock;
        Call *call = free_place(bytes);
        struct blob_attr *copy = call && msg ? copy_of(msg) : nullptr;
        if (!call || (msg && !copy))
            return false;
        *call = {};
        call->wanted = true;
        call->number = ++last_number;
        call->came_ms = monotonic_ms();
        call->own_ms = own_ms;
        call->patience_ms = patience_ms;
        call->row = arriving;
        call->msg = copy;
        ubus_defer_request(ctx, req, &call->request);
        call->state = State::waiting;
        waiting_bytes += bytes;
    }
    wake_worker();
    (void)set_over_timer();
    return true;
}

bool call_waits(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg, uint32_t own_ms,
                uint32_t patience_ms)
{
    if (!arriving || arriving->kind == Kind::quick)
        return false;
    if (put_aside(ctx, req, msg, own_ms, patience_ms))
        return true;
    CELMUX_LOG(LOG_ERR, "%s, %s refused", "ubus_handler", stopping ? "the daemon stops" : "too many calls wait",
               arriving->name);
    if (arriving->kind == Kind::set_up) {
        (void)reply_result(ctx, req, RESULT_REQUEST_FAILED);
        return true;
    }
    limit_requests(CALL_IS_OVER);
    return false;
}

// The worker.

static bool earlier_of_same_caller(const Call &call)
{
    return std::any_of(calls.begin(), calls.end(), [&](const Call &other) {
        return other.state == State::waiting && other.number < call.number && other.request.peer == call.request.peer;
    });
}

// Callers who wait with the same question get the same answer, except a caller who has an earlier call that still
// waits. While the modem is silent each caller has a time-out of its own.
static void take_twins(const Call *first)
{
    if (first->row->kind != Kind::query || link_silent())
        return;
    for (Call &call : calls) {
        if (call.state != State::waiting || call.row != first->row || earlier_of_same_caller(call))
            continue;
        call.state = State::taken;
        call.twin = first;
    }
}

// The call whose turn it is, or null when there is none.
static Call *take_call()
{
    CallsLock lock;
    int64_t now = monotonic_ms();
    Call *first = nullptr;
    for (Call &call : calls) {
        if (call.state == State::waiting && call.wanted && !turn_is_over(call, now) &&
            (!first || call.number < first->number))
            first = &call;
    }
    if (!first || stopping)
        return nullptr;
    first->state = State::taken;
    first->twin = first;
    take_twins(first);
    return first;
}

static void carry_out(Call *call)
{
    keep_replies(&call->reply);
    limit_requests(call->row->kind == Kind::set_up ? NO_CALL_LIMIT : call->came_ms + call->own_ms);
    call->status = call->row->handler(nullptr, nullptr, nullptr, call->row->name, call->msg);
    keep_replies(nullptr);
    {
        CallsLock lock;
        for (Call &other : calls) {
            if (other.state == State::taken && other.twin == call)
                other.state = State::done;
        }
    }
    uint64_t one = 1;
    if (write(done_watch.fd, &one, sizeof one) != sizeof one) {
        // Can only mean that the counter is full, so the descriptor is readable already.
    }
}

static void *run_calls(void *)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1); // only the bus thread is to be woken by it
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    for (;;) {
        uint32_t seen = work_word.load();
        if (Call *call = take_call()) {
            carry_out(call);
            continue;
        }
        {
            CallsLock lock;
            if (stopping)
                return nullptr;
        }
        constexpr uint32_t CEILING_MS = 60000;
        wait_word(&work_word, seen, CEILING_MS);
    }
}

// The bus thread.

static void release(Call *call)
{
    CallsLock lock;
    waiting_bytes -= call->msg ? blob_raw_len(call->msg) : 0;
    free(call->msg);
    blob_buf_free(&call->reply);
    call->state = State::empty;
}

static void answer(Call *call, int status)
{
    if (call->wanted)
        ubus_complete_deferred_request(bus, &call->request, status);
    call->wanted = false;
}

static void answer_done(Call *call)
{
    if (call->wanted && call->twin->reply.head)
        (void)ubus_send_reply(bus, &call->request, call->twin->reply.head); // a caller that went away needs no answer
    answer(call, call->twin->status);
}

static void answer_over(Call *call)
{
    if (!call->wanted)
        return;
    int status = UBUS_STATUS_OK;
    if (call->row->kind == Kind::set_up) {
        (void)reply_result(bus, &call->request, RESULT_REQUEST_FAILED);
    } else {
        limit_requests(CALL_IS_OVER);
        status = call->row->handler(bus, nullptr, &call->request, call->row->name, call->msg);
        limit_requests(NO_CALL_LIMIT);
    }
    answer(call, status);
}

static void answer_calls()
{
    State states[MOST_WAITING_CALLS]; // in one look: a call and its twins are done together, and share one reply
    {
        CallsLock lock;
        for (size_t i = 0; i < calls.size(); i++)
            states[i] = calls[i].state;
    }
    for (size_t i = 0; i < calls.size(); i++) {
        if (states[i] == State::done)
            answer_done(&calls[i]);
        else if (states[i] == State::over)
            answer_over(&calls[i]);
    }
    for (size_t i = 0; i < calls.size(); i++) {
        if (states[i] == State::done || states[i] == State::over)
            release(&calls[i]);
    }
}

static void end_turns(bool all)
{
    int64_t now = monotonic_ms();
    CallsLock lock;
    for (Call &call : calls) {
        if (call.state == State::waiting && (all || !call.wanted || turn_is_over(call, now)))
            call.state = State::over;
    }
}

// The worker passes over a call whose time is over and sleeps; when the modem has spoken before this thread looks, the
// call has time again.
static void tend_calls()
{
    end_turns(false);
    answer_calls();
    if (set_over_timer())
        wake_worker();
}

static void on_done(struct uloop_fd *watch, unsigned)
{
    uint64_t count;
    if (read(watch->fd, &count, sizeof count) != sizeof count && errno == EAGAIN) {
        // An earlier look has taken it already, and this one does no harm.
    }
    tend_calls();
}

int start_calls(struct ubus_context *ctx)
{
    bus = ctx;
    done_watch.fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    done_watch.cb = on_done;
    over_timer.cb = [](struct uloop_timeout *) { tend_calls(); };
    if (done_watch.fd == -1 || uloop_fd_add(&done_watch, ULOOP_READ) != 0)
        return -1;
    worker_started = pthread_create(&worker, nullptr, run_calls, nullptr) == 0;
    return worker_started ? 0 : -1;
}

void drop_calls()
{
    {
        CallsLock lock;
        for (Call &call : calls)
            call.wanted = false;
    }
    tend_calls();
}

// Does the worker still carry out a call whose caller waits?
static bool some_taken()
{
    CallsLock lock;
    return std::any_of(calls.begin(), calls.end(),
                       [](const Call &call) { return call.state == State::taken && call.wanted; });
}

// A call that comes while the daemon stops is refused, or answered when that needs neither the modem nor a script.
static void take_in_calls()
{
    uloop_cancelled = false; // else libubus reads nothing
    ubus_handle_event(bus);
}

void answer_calls_for_stop()
{
    {
        CallsLock lock;
        stopping = true;
    }
    wake_worker();
    end_turns(true);
    const int64_t deadline = monotonic_ms() + STOP_PATIENCE_MS;
    for (;;) {
        bool more = some_taken(); // asked first: what is done after the answers were given needs another look
        answer_calls();
        int64_t left = more ? deadline - monotonic_ms() : 0;
        pollfd entries[] = {{done_watch.fd, POLLIN, 0}, {bus->sock.fd, POLLIN, 0}};
        (void)poll(entries, 2, left > 0 ? static_cast<int>(left) : 0); // a signal only makes the look come early
        if (entries[1].revents)
            take_in_calls();
        uint64_t count;
        (void)!read(done_watch.fd, &count, sizeof count); // perhaps nothing is done yet
        if (left <= 0)
            break;
    }
    for (Call &call : calls) { // what the worker is at does not end: a script, say
        bool taken = false;
        {
            CallsLock lock;
            taken = call.state == State::taken && call.wanted;
        }
        if (taken)
            answer(&call, reply_result(bus, &call.request, RESULT_REQUEST_FAILED));
    }
    answer_calls(); // what was done while that was found out
}

void end_calls()
{
    if (worker_started)
        pthread_join(worker, nullptr);
    worker_started = false;
    answer_calls(); // nobody wants these
    uloop_timeout_cancel(&over_timer);
    uloop_fd_delete(&done_watch);
    close(done_watch.fd);
}
