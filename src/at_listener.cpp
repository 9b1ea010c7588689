// Runs on the thread at_listener. It does not interpret the text, and every wait of it ends with the stop event.

#include "at_listener.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "config.h"
#include "files.h"
#include "link.h"
#include "log.h"
#include "port.h"
#include "queues.h"
#include "waiting.h"

constexpr uint32_t GROWTH = 1024;
constexpr size_t CHUNK_SIZE = 1023;
constexpr useconds_t CHUNK_PAUSE_US = 1000;
constexpr uint32_t ASSEMBLY_LIMIT = 64 * 1024; // a port that never pauses gets its bursts cut here
constexpr uint32_t PUSH_PATIENCE_MS = 5000;    // for a processor that is busy with a shell command
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

// Does the text end with a whole final result code, or with the prompt of a message (3GPP TS 27.005 3.5.1)? What comes
// behind them is another burst.
static bool ends_with_result(const Assembly &assembly)
{
    std::string_view text(assembly.text ? assembly.text : "", assembly.length);
    size_t end = text.find_last_not_of("\r\n");
    if (end == std::string_view::npos)
        return false;
    size_t before = text.find_last_of("\r\n", end);
    std::string_view line = text.substr(before + 1, end - before);
    if (end + 1 == text.size())
        return line == ">" || line == "> ";
    return text.ends_with('\n') && is_final_result(line, CommandKind::dial);
}

// Called after each chunk: waits for more, for as long as the silence that ends a burst. Returns true when reading must
// go on.
static bool burst_goes_on(int fd, const Assembly *assembly, bool chunk_full)
{
    uint32_t gap = settings_g.burst_gap_ms;
    if (ends_with_result(*assembly))
        return false;
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
    if (poll(&in, 1, static_cast<int>(gap - 1)) == 1)
        return true;
    link_gap_bursts.fetch_add(1);
    return false;
}

// Takes zero bytes out, which line noise and some modems bring: what is handed on is a text. Returns the length left.
static ssize_t without_zero_bytes(char *bytes, ssize_t length)
{
    ssize_t kept = 0;
    for (ssize_t i = 0; i < length; i++) {
        if (bytes[i] != '\0')
            bytes[kept++] = bytes[i];
    }
    return kept;
}

// Reads until the burst is complete and pushes it. `fruitless` counts the reads in a row that found nothing.
static Reading read_burst(int fd, Assembly *assembly, int *fruitless)
{
    uint32_t chunks = 0;
    char chunk[CHUNK_SIZE + 1];
    for (;;) {
        ssize_t got = read(fd, chunk, CHUNK_SIZE);
        bool full = got == static_cast<ssize_t>(CHUNK_SIZE);
        if (got > 0) {
            got = without_zero_bytes(chunk, got);
            chunk[got] = '\0';
            chunks++;
            CELMUX_LOG(LOG_INFO, "BUF: %s", "at_listener", Masked(chunk, &assembly->scan).text);
            (void)append_resp(assembly, chunk); // logged there; the burst goes on without the chunk
            if (assembly->length >= ASSEMBLY_LIMIT)
                message_enqueue(assembly);
            bool goes_on = burst_goes_on(fd, assembly, full);
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
    if (chunks > 0) {
        *fruitless = 0;
        message_enqueue(assembly);
        return Reading::again;
    }
    // A device that has hung up stays readable for ever. So the reads are paced, and it is opened anew when that does
    // not end.
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
        link_restarted(); // the sender only notices at its next command
        fd = reopen_lost_port(&settings_g, O_RDONLY, __func__);
    }
    free(assembly.text);
    log_info("%s thread exit gracefully", __func__);
    return nullptr;
}
