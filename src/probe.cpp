// Two child processes talk to the device, one reads and one writes, because opening, reading and writing may each block
// for ever in a driver whose modem is not up. The parent only waits for a pipe, with a limit, and then ends exactly
// these two.

#include "probe.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config.h"
#include "files.h"
#include "log.h"
#include "port.h"
#include "text_cut.h"
#include "waiting.h"

constexpr size_t ANSWERS_MAX = 511;
constexpr int64_t CONVERSATION_MS = 1500;
constexpr int64_t REAP_MS = 200;
constexpr int START_MS = 100; // for the reader to open the device
constexpr int COMMAND_MS = 50;
constexpr int QUIET_MS = 100; // without an answer after the last command

static const char *const COMMANDS[] = {"AT+CGSN=1\n", "AT+GMM?\n", "AT+CGMI?\n", "ATI9\n", "ATI8\n"};

// The line that is being put together.
struct InfoLine {
    std::span<char> out;
    size_t used;
};

static bool append_value(InfoLine *line, std::string_view value)
{
    const size_t comma = line->used ? 1 : 0;
    if (line->used + comma + value.size() >= line->out.size())
        return false;
    if (comma)
        line->out[line->used++] = ',';
    memcpy(line->out.data() + line->used, value.data(), value.size());
    line->used += value.size();
    line->out[line->used] = '\0';
    return true;
}

enum class Field { MISSING, TAKEN, BROKEN };

// Appends the text before the closing double quote.
static Field append_quoted(InfoLine *info, std::string_view text)
{
    Cut value = until_any(text, "\"");
    return value.found && append_value(info, value.text) ? Field::TAKEN : Field::BROKEN;
}

static bool take_imei(std::string_view *rest, InfoLine *info)
{
    std::string_view line;
    if (!next_own_line(rest, "+CGSN:", &line) || rest->empty()) // cut off before its line end
        return false;
    std::string_view value = unquoted(trimmed(line));
    return !value.empty() && value.find('"') == std::string_view::npos && append_value(info, value);
}

// The value in double quotes of the next line that begins with `marker`; leaves *rest behind that line.
static Field take_quoted(std::string_view *rest, std::string_view marker, InfoLine *info)
{
    std::string_view behind_line = *rest, line;
    if (!next_own_line(&behind_line, marker, &line))
        return Field::MISSING;
    *rest = behind_line;
    return append_quoted(info, after_marker(line, "\"").text);
}

// The line that answers `command` behind its echo, without its opening double quote; leaves *rest behind that line.
static Cut echoed_answer(std::string_view *rest, std::string_view command)
{
    std::string_view behind_line = *rest, line;
    while (next_own_line(&behind_line, command, &line)) {
        do {
            if (!next_line(&behind_line, &line))
                return {{}, false};
        } while (line.starts_with('+')); // a report
        if (line.starts_with('"')) {
            *rest = behind_line;
            return {line.substr(1), true};
        }
    }
    return {{}, false};
}

static Field take_hardware_version(std::string_view *rest, InfoLine *info)
{
    Cut line = echoed_answer(rest, "ATI9");
    if (!line.found)
        return Field::MISSING;
    Cut value = after_marker(line.text, ":");
    if (!value.found && until_any(line.text, "\"").found)
        return Field::MISSING; // another layout
    return append_quoted(info, behind(value.text, 1));
}

bool modem_info_line(std::string_view answers, std::span<char> line)
{
    InfoLine info = {line, 0};
    std::string_view rest = answers.substr(0, answers.find('\0'));
    if (!take_imei(&rest, &info))
        return false;
    if (take_quoted(&rest, "+GMM:", &info) == Field::BROKEN || take_quoted(&rest, "+CGMI:", &info) == Field::BROKEN ||
        take_hardware_version(&rest, &info) == Field::BROKEN)
        return false;
    (void)append_quoted(&info, echoed_answer(&rest, "ATI8").text); // a broken one is only left out
    return true;
}

// Children of a process with one thread; they end with their parent.
static pid_t start_child(void (*body)(const char *device, int pipe_end), const char *device, int pipe_end,
                         int other_end)
{
    pid_t child = fork();
    if (child != 0)
        return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    leave_claim_to_parent(); // one that is stuck in the driver would keep the next daemon out
    close(other_end);
    body(device, pipe_end);
    _exit(0);
}

static void read_device(const char *device, int out)
{
    int fd = open(device, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    char chunk[256];
    ssize_t got;
    while (fd != -1 && (got = read(fd, chunk, sizeof chunk)) > 0) {
        if (write(out, chunk, static_cast<size_t>(got)) != got)
            return;
    }
}

// As long as the child's end of the pipe is open, the parent knows that the child still works.
static void write_device(const char *device, int)
{
    poll(nullptr, 0, START_MS);
    for (const char *command : COMMANDS) {
        int fd = open(device, O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (fd == -1 || write(fd, command, strlen(command)) == -1)
            return;
        close(fd);
        poll(nullptr, 0, COMMAND_MS);
    }
}

struct Answers {
    char text[ANSWERS_MAX + 1];
    size_t size;
};

// Returns false when the reader has ended.
static bool read_answers(int fd, Answers *answers)
{
    char chunk[256];
    ssize_t got = read(fd, chunk, sizeof chunk);
    if (got <= 0)
        return got < 0 && errno == EINTR;
    size_t kept =
        static_cast<size_t>(got) < ANSWERS_MAX - answers->size ? static_cast<size_t>(got) : ANSWERS_MAX - answers->size;
    memcpy(answers->text + answers->size, chunk, kept);
    answers->size += kept;
    return true;
}

// Gathers answers until the writer is done and the modem is quiet, the reader has ended, or the time is over.
static void gather_answers(int reader_fd, int writer_fd, Answers *answers)
{
    const int64_t deadline = monotonic_ms() + CONVERSATION_MS;
    bool writing = true;
    for (;;) {
        int64_t left = deadline - monotonic_ms();
        if (left <= 0)
            return;
        if (!writing && left > QUIET_MS)
            left = QUIET_MS;
        pollfd fds[] = {{reader_fd, POLLIN, 0}, {writing ? writer_fd : -1, 0, 0}};
        int ready = poll(fds, 2, static_cast<int>(left));
        if (ready == 0 && !writing)
            return;
        if (fds[1].revents)
            writing = false;
        if (fds[0].revents && !read_answers(reader_fd, answers))
            return;
    }
}

static void end_child(pid_t child, int64_t deadline)
{
    if (child <= 0)
        return;
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, WNOHANG) == 0) {
        if (monotonic_ms() > deadline) { // stuck in the driver; it ends when that lets go
            log_error("probe process %d does not end", static_cast<int>(child));
            return;
        }
        poll(nullptr, 0, 5);
    }
}

static void converse(const char *device, Answers *answers)
{
    int from_reader[2];
    int from_writer[2];
    if (pipe2(from_reader, O_CLOEXEC) == -1)
        return;
    if (pipe2(from_writer, O_CLOEXEC) == -1) {
        close(from_reader[0]);
        close(from_reader[1]);
        return;
    }
    pid_t reader = start_child(read_device, device, from_reader[1], from_writer[1]);
    close(from_reader[1]);
    pid_t writer = reader > 0 ? start_child(write_device, device, from_writer[1], from_reader[0]) : -1;
    close(from_writer[1]);
    if (writer > 0)
        gather_answers(from_reader[0], from_writer[0], answers);
    else
        log_error("probe cannot start its processes, errno: %d", errno);
    const int64_t deadline = monotonic_ms() + REAP_MS;
    end_child(reader, deadline);
    end_child(writer, deadline);
    close(from_reader[0]);
    close(from_writer[0]);
}

static bool write_whole(const char *path, const char *line)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd == -1)
        return false;
    const ssize_t size = static_cast<ssize_t>(strlen(line)) + 1;
    bool written = write(fd, line, static_cast<size_t>(size)) == size && fsync(fd) == 0;
    return close(fd) == 0 && written;
}

static void replace_file(const char *path, const char *line)
{
    char temporary[128];
    int length = snprintf(temporary, sizeof temporary, "%s.new", path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof temporary)
        return;
    if (!write_whole(temporary, line) || rename(temporary, path) != 0) {
        log_error("cannot write %s, errno: %d", path, errno);
        unlink(temporary);
    }
}

void probe_device(const char *device, const char *info_file)
{
    struct stat status;
    if (stat(device, &status) != 0 || !S_ISCHR(status.st_mode))
        return;
    Answers answers = {};
    char line[MODEM_INFO_SIZE];
    converse(device, &answers);
    if (modem_info_line(std::string_view(answers.text, answers.size), line))
        replace_file(info_file, line);
}

void probe_modem_info()
{
    if (!settings_g.port || !file_exists(settings_g.port))
        return;
    probe_device("/dev/mhi_at", "/tmp/qz_modem_info");
}
