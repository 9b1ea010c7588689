// Runs on the thread at_listener. It never interprets the text and never waits for longer than it takes the stop event
// to come.

#include "at_listener.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "celmux.h"
#include "config.h"
#include "final_results.h"
#include "link_step.h"
#include "log.h"
#include "port.h"
#include "request.h"
#include "waiting.h"

constexpr uint32_t GROWTH = 1024;
constexpr size_t CHUNK_SIZE = 1023;
constexpr useconds_t CHUNK_PAUSE_US = 1000;
constexpr uint32_t ASSEMBLY_LIMIT = 256 * 1024; // a port that never pauses gets its bursts cut here
constexpr uint32_t PUSH_PATIENCE_MS = 5000;     // for a processor that is busy with a shell command
constexpr int FRUITLESS_LIMIT = 20; // readable but nothing to read, so often in a row: the descriptor is dead
constexpr uint32_t FRUITLESS_PAUSE_MS = 100;

enum class Reading { again, lost, stopped };

int append_resp(Assembly *assembly, const char *chunk)
{
    uint32_t chunk_length = static_cast<uint32_t>(strlen(chunk));
    uint32_t needed = assembly->length + chunk_length + 1;
    if (needed > assembly->capacity) {
        uint32_t capacity = (needed + GROWTH - 1) / GROWTH * GROWTH;
        char *text = static_cast<char *>(realloc(assembly->text, capacity));
        if (!text) {
            log_info("%s %s failed", "append_resp", assembly->text ? "realloc" : "malloc");
            return assembly->text ? -2 : -1;
        }
        assembly->text = text;
        assembly->capacity = capacity;
    }
    memcpy(assembly->text + assembly->length, chunk, chunk_length + 1);
    assembly->length += chunk_length;
    return 0;
}

// Hands the burst over, or drops it when no element comes free in time.
static void message_enqueue(Assembly *assembly)
{
    if (!assembly->text)
        return;
    TextElem *element = static_cast<TextElem *>(pool_queue_alloc_for(&at_rx_queue, PUSH_PATIENCE_MS));
    if (element) {
        *element = {assembly->text, assembly->capacity};
        pool_queue_push(&at_rx_queue, element);
    } else {
        log_error("failed to alloc message");
        free(assembly->text);
    }
    *assembly = {nullptr, 0, 0, assembly->scan};
}

// Waits for input; false when the daemon stops or the wait failed for good. *events gets what the port shows.
static bool wait_readable(int fd, short *events)
{
    for (;;) {
        pollfd waits[] = {{fd, POLLIN, 0}, {stop_event_fd(), POLLIN, 0}};
        int ready = poll(waits, 2, -1);
        if (!running.load())
            return false;
        if (ready == -1) {
            int error = errno;
            CELMUX_LOG(LOG_ERR, "select errno: %d", "at_listener", error);
            if (error == EINTR || !sleep_while_running(FRUITLESS_PAUSE_MS))
                return false;
        } else if (waits[0].revents) {
            *events = waits[0].revents;
            return true;
        }
    }
}

static bool port_gone(int fd)
{
    return !file_exists(settings_g.port) || !port_is_same(fd, settings_g.port);
}

// Behind a chunk: waits as long as the silence that ends a burst. True when reading is to go on.
static bool burst_goes_on(int fd, const Assembly *assembly, bool chunk_full)
{
    uint32_t gap = settings_g.burst_gap_ms;
    bool serial = settings_g.port_type == PORT_SERIAL;
    if (gap > 0)
        usleep(CHUNK_PAUSE_US);
    if (gap <= 1) {
        short events;
        return serial || (chunk_full && wait_readable(fd, &events));
    }
    pollfd in = {fd, POLLIN, 0};
    if (poll(&in, 1, 0) == 1)
        return true;
    if (assembly->text && ends_with_result(assembly->text))
        return false;
    if (poll(&in, 1, static_cast<int>(gap - 1)) == 1)
        return true;
    link_statistics.gap_bursts.fetch_add(1);
    return false;
}

// Reads until the burst is complete and pushes it. `fruitless` counts the reads in a row that found nothing.
static Reading read_burst(int fd, Assembly *assembly, int *fruitless)
{
    uint32_t total = 0;
    char chunk[CHUNK_SIZE + 1];
    for (;;) {
        ssize_t got = read(fd, chunk, CHUNK_SIZE);
        if (got > 0) {
            chunk[got] = '\0';
            total += static_cast<uint32_t>(got);
            if (!assembly->text)
                mask_rest_of_echo(assembly->scan, chunk);
            CELMUX_LOG(LOG_INFO, "BUF: %s", "at_listener", Masked(chunk, &assembly->scan).text);
            (void)append_resp(assembly, chunk); // logged there; the burst goes on without the chunk
            if (assembly->length >= ASSEMBLY_LIMIT)
                message_enqueue(assembly);
            bool goes_on = burst_goes_on(fd, assembly, got == CHUNK_SIZE);
            if (!running.load())
                return Reading::stopped;
            if (goes_on)
                continue;
        } else if (got == 0) {
            CELMUX_LOG(LOG_INFO, "read timeout", "at_listener");
        } else {
            CELMUX_LOG(LOG_ERR, "Read error: %d", "at_listener", errno);
            if (port_gone(fd))
                return Reading::lost;
        }
        break;
    }
    if (total > 0) {
        *fruitless = 0;
        message_enqueue(assembly);
        return Reading::again;
    }
    // A device that hung up is readable for ever: pace it, and open it anew when that does not end.
    if (port_gone(fd) || ++*fruitless >= FRUITLESS_LIMIT)
        return Reading::lost;
    return sleep_while_running(FRUITLESS_PAUSE_MS) ? Reading::again : Reading::stopped;
}

// Reads bursts until the port is lost (true) or the thread is to end (false).
static bool listen_until_lost(int fd, Assembly *assembly)
{
    int fruitless = 0;
    while (running.load()) {
        short events;
        if (!wait_readable(fd, &events))
            return false;
        Reading reading = read_burst(fd, assembly, &fruitless);
        if (reading == Reading::lost)
            return true;
        if (reading == Reading::stopped)
            return false;
    }
    return false;
}

void *at_listener(void *)
{
    if (!settings_g.port) {
        log_error("port not defined");
        return nullptr;
    }
    Assembly assembly = {};
    int fd = open_configured_port(&settings_g, O_RDONLY, __func__);
    while (fd != -1) {
        set_ready(&t_listener_ready);
        assembly.scan = {};
        bool lost = listen_until_lost(fd, &assembly);
        close(fd);
        if (!lost)
            break;
        end_scan(); // the sender would only notice at its next command, and there is none during a scan
        fd = reopen_lost_port(&settings_g, O_RDONLY, __func__);
        link_out_of_step(LinkFault::restarted);
    }
    free(assembly.text);
    log_info("%s thread exit gracefully", __func__);
    return nullptr;
}
