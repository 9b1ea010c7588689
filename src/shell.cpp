// The router's shell. Children get default signal actions and an empty mask (the daemon blocks its stop signals, and
// what an init script starts must not inherit that), and a child that never ends costs its caller 30 s, not the daemon.

#include "shell.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "log.h"
#include "waiting.h"

extern char **environ;

constexpr int64_t COMMAND_LIMIT_MS = 30000;
constexpr int64_t STOP_LIMIT_MS = 1000; // for a command that runs when the daemon stops
constexpr size_t COMMAND_SIZE_MAX = 4096;

void claim_children()
{
    uloop_handle_sigchld = false;
    signal(SIGCHLD, SIG_DFL);
}

static pid_t start_shell(const char *command, int output_fd)
{
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawn_file_actions_init(&actions);
    if (output_fd != -1)
        posix_spawn_file_actions_adddup2(&actions, output_fd, STDOUT_FILENO);

    const char *argv[] = {"sh", "-c", command, nullptr};
    pid_t child;
    int error = posix_spawn(&child, "/bin/sh", &actions, &attributes, const_cast<char *const *>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error == 0)
        return child;
    log_error("cannot run \"%s\": %s", command, strerror(error));
    return -1;
}

// Is the time of a command over? It is also over when the daemon stops.
static bool overdue(int64_t started)
{
    static std::atomic<int64_t> stop_seen{0};
    int64_t now = monotonic_ms();
    if (running.load())
        return now - started > COMMAND_LIMIT_MS;
    int64_t none = 0;
    stop_seen.compare_exchange_strong(none, now);
    return now - stop_seen.load() > STOP_LIMIT_MS;
}

// Most commands end within a few milliseconds, so the sleep between looks grows from 1 ms to 20 ms.
static int wait_shell(pid_t child, const char *command, int64_t started)
{
    useconds_t pause = 1000;
    for (;;) {
        int status;
        pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (ended == -1 && errno != EINTR)
            return -1;
        if (overdue(started)) {
            log_error("\"%s\" does not end, killed", command);
            kill(-child, SIGKILL); // with what it started and waits for
            while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
            }
            return -1;
        }
        usleep(pause);
        if (pause < 20000)
            pause *= 2;
    }
}

int run_shell(const char *command)
{
    int64_t started = monotonic_ms();
    pid_t child = start_shell(command, -1);
    return child == -1 ? -1 : wait_shell(child, command, started);
}

int run_shell_format(const char *format, ...)
{
    char command[COMMAND_SIZE_MAX];
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int length = vsnprintf(command, sizeof command, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= sizeof command) {
        log_error("command too long");
        return -1;
    }
    return run_shell(command);
}

// Reads to the end of the output and keeps what fits. Returns false when the time was over before the end.
static bool read_output(int fd, char output[COMMAND_OUTPUT_SIZE], int64_t started)
{
    constexpr int LOOK_MS = 100;
    size_t kept = 0;
    for (;;) {
        pollfd in = {fd, POLLIN, 0};
        int ready = poll(&in, 1, LOOK_MS);
        if (overdue(started))
            return false;
        if (ready <= 0)
            continue;
        char chunk[1024];
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        for (ssize_t i = 0; i < got && kept < COMMAND_OUTPUT_SIZE - 1; i++)
            output[kept++] = chunk[i];
    }
    if (kept > 0 && output[kept - 1] == '\n')
        output[kept - 1] = '\0';
    return true;
}

int run_command_output(const char *command, char output[COMMAND_OUTPUT_SIZE])
{
    if (!command || !output)
        return -1;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        return -1;
    int64_t started = monotonic_ms();
    pid_t child = start_shell(command, ends[1]);
    close(ends[1]);
    int status = -1;
    if (child != -1) {
        memset(output, 0, COMMAND_OUTPUT_SIZE);
        (void)read_output(ends[0], output, started); // a command out of time is ended by wait_shell
        status = wait_shell(child, command, started);
    }
    close(ends[0]);
    return status;
}
