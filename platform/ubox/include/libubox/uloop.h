/*
 * Event loop of one thread: descriptors and timeouts. Handlers may delete and add any of them, their own included.
 */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include "list.h"

#include <signal.h>
#include <sys/time.h>

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3)
#define ULOOP_EVENT_MASK (ULOOP_READ | ULOOP_WRITE)

struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;
    bool error;
    bool registered;
    uint8_t flags;
};

struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    struct timeval time;
};

/*
 * Ends the loop when set. uloop_run clears it when it starts and tests it only between waits, so one set just before
 * the start or between a test and a wait is lost.
 */
extern bool uloop_cancelled;

/*
 * Whether the loop waits for all children of the process (waitpid(-1)), those of other threads too. Cleared before
 * uloop_init and ubus_connect it leaves them alone.
 */
extern bool uloop_handle_sigchld;

/*
 * 0, or -1. Calling it again without uloop_done is harmless. From here to uloop_done SIGINT and SIGTERM end the loop,
 * SIGPIPE is ignored and SIGCHLD makes it wait for children, each only where the action was the default one.
 */
int uloop_init(void);
void uloop_done(void);

/*
 * Watches a descriptor, or changes how; makes it non-blocking unless ULOOP_BLOCKING is given. Without READ and WRITE it
 * is deleted. A descriptor in error or hung up is deleted before its handler is called with `error` set; `eof` means
 * that the peer has closed its side. 0, or -1.
 */
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
int uloop_fd_delete(struct uloop_fd *sock);

/* Calls the handler once, msecs from now on the monotonic clock; set again, the earlier time is forgotten. 0, or -1. */
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
/* 0, or -1 if it was not pending. */
int uloop_timeout_cancel(struct uloop_timeout *timeout);

/*
 * Serves until uloop_cancelled is set, by uloop_end or by SIGINT or SIGTERM.
 * With a timeout of 0 or more: one wait of at most so many milliseconds and what it brings. Returns the signal that
 * ended it, or 0.
 */
int uloop_run_timeout(int timeout);
static inline int uloop_run(void)
{
    return uloop_run_timeout(-1);
}

static inline void uloop_end(void)
{
    uloop_cancelled = true;
}

#endif
