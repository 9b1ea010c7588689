extern "C" {
#include <libubox/uloop.h>
}

#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;
}

namespace {

constexpr int batch_size = 16;

// What one wait brought; nested loops form a chain, so that a deleted descriptor is forgotten in every one of them.
struct event_batch {
    epoll_event events[batch_size];
    int count = 0;
    event_batch *outer = nullptr;
};

int epoll_fd = -1;
event_batch *batches = nullptr;
list_head timeouts = LIST_HEAD_INIT(timeouts); // earliest first
volatile sig_atomic_t ending_signal = 0;
volatile sig_atomic_t child_ended = 0;
int wake_pipe[2] = {-1, -1}; // a signal that comes just before a wait ends it
bool signals_taken = false;

int64_t monotonic_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int64_t due_us(const uloop_timeout *timeout)
{
    return static_cast<int64_t>(timeout->time.tv_sec) * 1000000 + timeout->time.tv_usec;
}

void wake()
{
    const int error = errno;
    (void)!write(wake_pipe[1], "", 1);
    errno = error;
}

void on_ending_signal(int signo)
{
    ending_signal = signo;
    uloop_cancelled = true;
    wake();
}

void on_child_signal(int)
{
    child_ended = 1;
    wake();
}

// Only in place of the default action: whoever has handlers of his own keeps them.
void take_signal(int signo, void (*handler)(int))
{
    struct sigaction action;
    sigaction(signo, nullptr, &action);
    if (action.sa_handler != SIG_DFL)
        return;
    action = {};
    action.sa_handler = handler;
    sigaction(signo, &action, nullptr);
}

void give_signal_back(int signo, void (*handler)(int))
{
    struct sigaction action;
    sigaction(signo, nullptr, &action);
    if (action.sa_handler != handler)
        return;
    action = {};
    action.sa_handler = SIG_DFL;
    sigaction(signo, &action, nullptr);
}

// All of them, whoever waits for them elsewhere in the process.
void reap_children()
{
    child_ended = 0;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

uloop_timeout *first_timeout()
{
    return list_empty(&timeouts) ? nullptr : list_first_entry(&timeouts, uloop_timeout, list);
}

// Milliseconds until a time, rounded up so that the wait does not end just short of it.
int until_ms(int64_t due)
{
    int64_t left = due - monotonic_us();
    if (left <= 0)
        return 0;
    int64_t ms = (left + 999) / 1000;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

void run_timeouts()
{
    int64_t now = monotonic_us();
    for (uloop_timeout *t = first_timeout(); t && due_us(t) <= now && !uloop_cancelled; t = first_timeout()) {
        uloop_timeout_cancel(t);
        if (t->cb)
            t->cb(t);
    }
}

void dispatch(uloop_fd *sock, uint32_t bits)
{
    unsigned int events = 0;
    if (bits & EPOLLIN)
        events |= ULOOP_READ;
    if (bits & EPOLLOUT)
        events |= ULOOP_WRITE;
    if (bits & (EPOLLERR | EPOLLHUP)) {
        // These cannot be masked: a handler that ignored them would be called without a pause.
        sock->error = true;
        uloop_fd_delete(sock);
    }
    if (bits & EPOLLRDHUP)
        sock->eof = true;
    if (sock->cb)
        sock->cb(sock, events);
}

void wait_and_dispatch(int timeout)
{
    event_batch batch;
    batch.count = epoll_wait(epoll_fd, batch.events, batch_size, timeout);
    batch.outer = batches;
    batches = &batch;
    for (int i = 0; i < batch.count && !uloop_cancelled; i++) {
        auto *sock = static_cast<uloop_fd *>(batch.events[i].data.ptr);
        if (static_cast<void *>(sock) == wake_pipe) {
            char bytes[64];
            (void)!read(wake_pipe[0], bytes, sizeof bytes);
            continue;
        }
        batch.events[i].data.ptr = nullptr;
        if (sock)
            dispatch(sock, batch.events[i].events);
    }
    batches = batch.outer;
}

} // namespace

extern "C" {

int uloop_init(void)
{
    if (epoll_fd < 0) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = wake_pipe;
        epoll_fd = epoll_create1(EPOLL_CLOEXEC);
        if (epoll_fd < 0 || pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) < 0 ||
            epoll_ctl(epoll_fd, EPOLL_CTL_ADD, wake_pipe[0], &event) < 0) {
            uloop_done();
            return -1;
        }
    }
    take_signal(SIGINT, on_ending_signal);
    take_signal(SIGTERM, on_ending_signal);
    take_signal(SIGPIPE, SIG_IGN);
    if (uloop_handle_sigchld)
        take_signal(SIGCHLD, on_child_signal);
    signals_taken = true;
    return 0;
}

void uloop_done(void)
{
    if (signals_taken) {
        give_signal_back(SIGINT, on_ending_signal);
        give_signal_back(SIGTERM, on_ending_signal);
        give_signal_back(SIGPIPE, SIG_IGN);
        give_signal_back(SIGCHLD, on_child_signal);
    }
    signals_taken = false;
    int *const descriptors[] = {&epoll_fd, &wake_pipe[0], &wake_pipe[1]};
    for (int *fd : descriptors) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
    while (uloop_timeout *t = first_timeout())
        uloop_timeout_cancel(t);
}

int uloop_fd_add(uloop_fd *sock, unsigned int flags)
{
    if (!(flags & ULOOP_EVENT_MASK))
        return uloop_fd_delete(sock);
    if (!(flags & ULOOP_BLOCKING)) {
        int mode = fcntl(sock->fd, F_GETFL);
        if (mode < 0 || fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK) < 0)
            return -1;
    }
    epoll_event event = {};
    event.events = EPOLLRDHUP;
    event.data.ptr = sock;
    if (flags & ULOOP_READ)
        event.events |= EPOLLIN;
    if (flags & ULOOP_WRITE)
        event.events |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER)
        event.events |= EPOLLET;
    int rc = epoll_ctl(epoll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event);
    if (rc < 0 && errno == ENOENT) // registered with a loop that has ended, or closed and opened anew since
        rc = epoll_ctl(epoll_fd, EPOLL_CTL_ADD, sock->fd, &event);
    else if (rc < 0 && errno == EEXIST)
        rc = epoll_ctl(epoll_fd, EPOLL_CTL_MOD, sock->fd, &event);
    if (rc < 0)
        return -1;
    sock->registered = true;
    sock->eof = false;
    sock->error = false;
    sock->flags = static_cast<uint8_t>(flags);
    return 0;
}

int uloop_fd_delete(uloop_fd *sock)
{
    for (event_batch *batch = batches; batch; batch = batch->outer) {
        for (int i = 0; i < batch->count; i++) {
            if (batch->events[i].data.ptr == sock)
                batch->events[i].data.ptr = nullptr;
        }
    }
    if (!sock->registered)
        return 0;
    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(epoll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs)
{
    if (timeout->pending)
        uloop_timeout_cancel(timeout);
    int64_t due = monotonic_us() + static_cast<int64_t>(msecs < 0 ? 0 : msecs) * 1000;
    timeout->time.tv_sec = static_cast<time_t>(due / 1000000);
    timeout->time.tv_usec = static_cast<suseconds_t>(due % 1000000);
    uloop_timeout *later;
    list_for_each_entry(later, &timeouts, list)
    {
        if (due_us(later) > due)
            break;
    }
    list_add_tail(&timeout->list, &later->list); // the head itself when none is later
    timeout->pending = true;
    return 0;
}

int uloop_timeout_cancel(uloop_timeout *timeout)
{
    if (!timeout->pending)
        return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int uloop_run_timeout(int timeout)
{
    ending_signal = 0;
    uloop_cancelled = false;
    (void)uloop_init(); // waiting without the descriptor would spin
    do {
        run_timeouts();
        if (child_ended)
            reap_children();
        if (uloop_cancelled)
            break;
        uloop_timeout *next = first_timeout();
        int wait = next ? until_ms(due_us(next)) : -1;
        if (timeout >= 0 && (wait < 0 || wait > timeout))
            wait = timeout;
        wait_and_dispatch(wait);
    } while (!uloop_cancelled && timeout < 0);
    if (timeout >= 0 && !uloop_cancelled)
        run_timeouts();
    return ending_signal;
}
}
