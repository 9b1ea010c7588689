// Runs on the thread at_sender. It does not wait for answers. When the port takes no bytes, a command is lost, but the
// thread goes on.

#include "at_sender.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "at_mask.h"
#include "config.h"
#include "files.h"
#include "link.h"
#include "log.h"
#include "port.h"
#include "queues.h"
#include "waiting.h"

constexpr uint32_t IDLE_MS = 60000;        // a push wakes the thread at once
constexpr uint32_t AFTER_FAILURE_MS = 100; // how often the path is looked at while the last write has failed
constexpr int WRITE_LIMIT_MS = 2000;       // for a port that does not take the bytes

// Writes the whole text, or fails with errno set. The descriptor does not block, so that a stop is noticed.
static bool write_command(int fd, const char *text, size_t size)
{
    int64_t deadline = monotonic_ms() + WRITE_LIMIT_MS;
    while (size > 0) {
        ssize_t written = write(fd, text, size);
        if (written > 0) {
            text += written;
            size -= static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        int64_t left = deadline - monotonic_ms();
        if (left <= 0 || !running.load()) {
            errno = EAGAIN;
            return false;
        }
        pollfd waits[] = {{fd, POLLOUT, 0}, {stop_event_fd(), POLLIN, 0}};
        (void)poll(waits, 2, static_cast<int>(left)); // whatever it says, the next write tells
    }
    return true;
}

static bool send_element(int fd, const TextElem *element)
{
    bool scan = strcmp(element->text, SCAN_COMMAND) == 0;
    if (scan)
        g_scan_began.store(1);
    bool written = write_command(fd, element->text, element->size);
    if (!written) {
        int error = errno;
        CELMUX_LOG(LOG_ERR, "write error: %d, %s", "at_sender", error, strerror(error));
        CELMUX_LOG(LOG_ERR, "send %s failed", "at_sender", Masked(element->text).text);
    }
    CELMUX_LOG(LOG_INFO, "Send: %.*s", "at_sender", static_cast<int>(element->size - 1), Masked(element->text).text);
    if (!written)
        link_write_failed(element->number);
    return written;
}

// Does the path lead to another port than the open one? If the modem has restarted since the last command, the next one
// would be lost.
static bool port_replaced(int fd)
{
    return file_exists(settings_g.port) && !port_is_same(fd, settings_g.port);
}

// Writes *kept, if any, and everything that is queued after waiting up to `idle_ms` for the first command.
// *last_write_ok keeps the last outcome. A command for which another port is there already stays in *kept.
static void drain(int fd, uint32_t idle_ms, TextElem **kept, bool *last_write_ok)
{
    TextElem *element = *kept ? *kept : static_cast<TextElem *>(pool_queue_pop_for(&at_tx_queue, idle_ms));
    *kept = nullptr;
    while (element) {
        if (port_replaced(fd)) {
            *kept = element;
            return;
        }
        if (element->size != 0 && element->size == strlen(element->text) && link_may_write(element->number))
            *last_write_ok = send_element(fd, element);
        free(element->text);
        element->text = nullptr;
        pool_queue_release(&at_tx_queue, element);
        if (!running.load())
            return;
        element = static_cast<TextElem *>(pool_queue_try_pop(&at_tx_queue));
    }
}

// Writes commands until the port is lost (true) or the daemon stops (false).
static bool send_until_lost(int fd, TextElem **kept)
{
    bool last_write_ok = true;
    while (running.load()) {
        drain(fd, last_write_ok ? IDLE_MS : AFTER_FAILURE_MS, kept, &last_write_ok);
        if (*kept || (!last_write_ok && !port_is_same(fd, settings_g.port)))
            return true;
    }
    return false;
}

void *at_sender(void *)
{
    TextElem *kept = nullptr;
    int fd = settings_g.port ? open_configured_port(&settings_g, O_WRONLY, __func__) : -1;
    while (fd != -1) {
        (void)fcntl(fd, F_SETFL, O_WRONLY | O_NONBLOCK); // without it a write may block for as long as the port does
        set_ready(&t_sender_ready);
        bool lost = send_until_lost(fd, &kept);
        if (!lost && link_at_prompt())
            (void)!write(fd, LINK_ESCAPE,
                         strlen(LINK_ESCAPE)); // who comes next finds no prompt; a full port is no prompt
        close(fd);
        if (!lost)
            break;
        link_restarted();
        fd = reopen_lost_port(&settings_g, O_WRONLY, __func__);
    }
    if (kept)
        free(kept->text);
    log_info("%s thread exit gracefully", __func__);
    return nullptr;
}
