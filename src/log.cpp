// Lines are put together whole and written with one write, so that lines of different threads never mix and a reader of
// standard output, or of the system log, that stops reading costs lines, not the daemon.

#include "log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

constexpr size_t LINE_SIZE = 1024;  // longer lines go through the heap
constexpr size_t CHUNK_SIZE = 4096; // a pipe that polls writable takes this much without blocking (PIPE_BUF)
constexpr int STALL_MS = 50;
constexpr char SYSTEM_LOG[] = "/dev/log";

static std::atomic<uint32_t> dropped_lines{0};
static std::atomic<bool> stalled{false}; // the last write found no room: the next ones do not wait for it

static bool write_out(const char *text, size_t length)
{
    while (length > 0) {
        pollfd out = {STDOUT_FILENO, POLLOUT, 0};
        if (poll(&out, 1, stalled.load() ? 0 : STALL_MS) != 1) {
            stalled = true;
            return false;
        }
        stalled = false;
        size_t chunk = length < CHUNK_SIZE ? length : CHUNK_SIZE;
        ssize_t written = write(STDOUT_FILENO, text, chunk);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

static std::atomic<uint32_t> dropped_messages{0};
static std::atomic<bool> system_log_stalled{false};

// Whether the system log's reader takes a message now. The C library sends on a socket of its own, which blocks for as
// long as the reader hangs, and holds a lock meanwhile; every socket that leads to that reader tells whether it would.
static bool system_log_takes()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SYSTEM_LOG, sizeof SYSTEM_LOG);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return false;
    bool takes = true; // where nobody reads, a message is lost at once
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        pollfd out = {fd, POLLOUT, 0};
        takes = poll(&out, 1, system_log_stalled.load() ? 0 : STALL_MS) == 1;
    }
    close(fd);
    return takes;
}

static void write_system_log(int level, const char *text)
{
    bool takes = system_log_takes();
    system_log_stalled.store(!takes);
    if (!takes) {
        dropped_messages.fetch_add(1);
        return;
    }
    uint32_t missing = dropped_messages.exchange(0);
    if (missing != 0)
        syslog(LOG_ERR, "(%u messages dropped)", missing);
    syslog(level, "%s", text);
}

static void write_line(const char *text, size_t length)
{
    uint32_t missing = dropped_lines.load();
    if (missing != 0 && !stalled.load()) {
        char note[64];
        int note_length = snprintf(note, sizeof note, "(%u lines dropped)\n", missing);
        if (write_out(note, static_cast<size_t>(note_length)))
            dropped_lines.fetch_sub(missing);
    }
    if (!write_out(text, length))
        dropped_lines.fetch_add(1);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
// Formats into `line` of LINE_SIZE or, when that is too short, into a heap text. `prefix_length` bytes are there
// already, and one byte for a line end is kept free behind the text.
static char *format_line(char *line, size_t prefix_length, const char *format, va_list arguments, size_t *length)
{
    va_list again;
    va_copy(again, arguments);
    int wanted = vsnprintf(line + prefix_length, LINE_SIZE - prefix_length - 1, format, arguments);
    char *text = line;
    *length = prefix_length + (wanted > 0 ? static_cast<size_t>(wanted) : 0);
    if (*length > LINE_SIZE - 2) {
        char *large = static_cast<char *>(malloc(*length + 2));
        if (large) {
            for (size_t i = 0; i < prefix_length; i++)
                large[i] = line[i];
            vsnprintf(large + prefix_length, *length - prefix_length + 1, format, again);
            text = large;
        } else {
            *length = LINE_SIZE - 2;
        }
    }
    va_end(again);
    return text;
}

void ril_log(int level, const char *format, const char *function, int line, ...)
{
    int saved_errno = errno;
    constexpr size_t MARKER_LENGTH = sizeof "[CELMUX: %s:%d] " - 1;
    char buffer[LINE_SIZE];
    int prefix = snprintf(buffer, sizeof buffer / 2, "[CELMUX: %s:%d] ", function, line);
    size_t length;
    va_list arguments;
    va_start(arguments, line);
    char *text = format_line(buffer, static_cast<size_t>(prefix), format + MARKER_LENGTH, arguments, &length);
    va_end(arguments);
    if (level == LOG_INFO) {
        text[length] = '\n';
        write_line(text, length + 1);
    } else {
        write_system_log(level, text);
    }
    if (text != buffer)
        free(text);
    errno = saved_errno;
}

void print_out(const char *format, ...)
{
    int saved_errno = errno;
    char buffer[LINE_SIZE];
    size_t length;
    va_list arguments;
    va_start(arguments, format);
    char *text = format_line(buffer, 0, format, arguments, &length);
    va_end(arguments);
    write_line(text, length);
    if (text != buffer)
        free(text);
    errno = saved_errno;
}
#pragma GCC diagnostic pop
