// Lines are put together whole and written with one write, so that lines of different threads never mix and a reader of
// standard output that stops reading costs lines, not the daemon.

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

// syslog() blocks for as long as a logger that hangs does not read. A connected datagram socket is writable only while its peer has room.
static bool system_log_takes()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", _PATH_LOG);
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool takes = true; // no logger, or one of another kind, is for syslog() to find out
    if (probe != -1 && connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        pollfd out = {probe, POLLOUT, 0};
        takes = poll(&out, 1, 0) == 1;
    }
    if (probe != -1)
        close(probe);
    return takes;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
// Formats into `line` of LINE_SIZE or, when that is too short, into a heap text. `prefix_length` bytes are there already, and
// one byte for a line end is kept free behind the text.
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
        if (system_log_takes())
            syslog(level, "%s", text);
        else
            dropped_lines.fetch_add(1);
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
