// Lines are put together whole and written with one write, so that lines of different threads never mix and a reader of
// standard output, or of the system log, that stops reading costs lines, not the daemon. No write blocks: to ask first
// whether there is room does not help, because another thread or process may take it in between.

#include "log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

constexpr size_t LINE_SIZE = 1024; // longer lines go through the heap
constexpr int STALL_MS = 50;
constexpr int TRIES = 3; // room that poll has seen may be gone again
constexpr char SYSTEM_LOG[] = "/dev/log";

// open_log sets both before there are other threads.
static int output = STDOUT_FILENO;
static bool output_is_socket = false;

static std::atomic<uint32_t> dropped_lines{0};
static std::atomic<bool> stalled{false}; // the last write found no room: the next ones do not wait for it

void open_log()
{
    // Otherwise the first files that the daemon opens would become its standard output and error, and log lines would
    // go to the modem.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) == -1)
            (void)open("/dev/null", O_RDWR);
    }
    struct stat status;
    output = STDOUT_FILENO;
    output_is_socket = fstat(STDOUT_FILENO, &status) == 0 && S_ISSOCK(status.st_mode);
    if (output_is_socket || (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)))
        return; // a send has a flag for it, and a file does not block
    // Opened once more, so that what else uses our standard output, a shell for example, does not become non-blocking.
    output = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (output == -1) {
        output = STDOUT_FILENO; // another user's pipe
        (void)fcntl(STDOUT_FILENO, F_SETFL, fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK);
    }
}

static bool wait_for_room(int fd, const std::atomic<bool> &no_patience)
{
    pollfd out = {fd, POLLOUT, 0};
    return poll(&out, 1, no_patience.load() ? 0 : STALL_MS) == 1;
}

static bool write_out(const char *text, size_t length)
{
    int tries = TRIES;
    while (length > 0) {
        ssize_t written =
            output_is_socket ? send(output, text, length, MSG_DONTWAIT | MSG_NOSIGNAL) : write(output, text, length);
        if (written > 0) {
            stalled.store(false);
            text += written;
            length -= static_cast<size_t>(written);
        } else if (written == 0 || (errno != EINTR && errno != EAGAIN)) {
            return false;
        } else if (errno == EAGAIN && (--tries == 0 || !wait_for_room(output, stalled))) {
            stalled.store(true);
            return false;
        }
    }
    return true;
}

static std::atomic<uint32_t> dropped_messages{0};
static std::atomic<bool> system_log_stalled{false};

// Sends what syslog(3) would send. The function of the C library uses a socket that blocks while the reader of the log
// hangs, and it holds a lock meanwhile.
static bool send_message(int fd, int level, const char *text)
{
    char header[96];
    tm local;
    time_t now = time(nullptr);
    int length = snprintf(header, sizeof header, "<%d>", level | LOG_USER);
    size_t used = static_cast<size_t>(length);
    if (localtime_r(&now, &local))
        used += strftime(header + used, sizeof header - used, "%b %e %T ", &local);
    length = snprintf(header + used, sizeof header - used, "%.32s: ", program_invocation_short_name);
    used += static_cast<size_t>(length);
    iovec parts[] = {{header, used}, {const_cast<char *>(text), strlen(text)}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    for (int tries = TRIES; tries > 0; tries--) {
        if (sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return true;
        if (errno != EINTR && (errno != EAGAIN || !wait_for_room(fd, system_log_stalled)))
            return false;
    }
    return false;
}

static void write_system_log(int level, const char *text)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SYSTEM_LOG, sizeof SYSTEM_LOG);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return;
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        uint32_t missing = system_log_stalled.load() ? 0 : dropped_messages.exchange(0);
        if (missing != 0) {
            char note[64];
            snprintf(note, sizeof note, "(%u messages dropped)", missing);
            if (!send_message(fd, LOG_ERR, note))
                dropped_messages.fetch_add(missing);
        }
        bool sent = send_message(fd, level, text);
        system_log_stalled.store(!sent);
        if (!sent)
            dropped_messages.fetch_add(1);
    }
    close(fd); // where nobody reads, a message is lost at once
}

static void write_line(const char *text, size_t length)
{
    uint32_t missing = stalled.load() ? 0 : dropped_lines.exchange(0);
    if (missing != 0) {
        char note[64];
        int note_length = snprintf(note, sizeof note, "(%u lines dropped)\n", missing);
        if (!write_out(note, static_cast<size_t>(note_length)))
            dropped_lines.fetch_add(missing);
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
