// Opening and configuring the AT port, and the small file helpers that go with it.
#pragma once

#include <cstddef>
#include <sys/stat.h>

struct Settings;

// Takes the port for this process, before anything is sent: an exclusive flock(2) on it and, on a terminal that is not a pseudo-terminal,
// TIOCEXCL. False when another process has it. True also when it cannot be opened, which the threads find out for themselves. Called by
// main before there are threads; the first open_port for reading returns the descriptor that holds the lock.
bool claim_port(const Settings *settings);
// For a child that is forked while main still has that descriptor: closes it there, so that it does not outlive the daemon.
void leave_claim_to_parent();
// Opens the configured port with `flags` (O_RDONLY or O_WRONLY; O_NOCTTY is added for a serial port, O_CLOEXEC always).
// For reading the port is locked, EBUSY when another process has it. A descriptor, or -1 with errno set.
int open_port(const Settings *settings, int flags);
// Sets the line: raw, speed, framing, parity, flow control, VMIN = VTIME = 0 (POSIX termios). 0, or -1 after a log line
// (without one for fd -1).
int config_serial_port(int fd, const Settings *settings);
// Opens the configured port and, when it is serial, configures it; failures are logged at level 3 under `thread`. A descriptor, or -1
// with errno set (0 when the line could not be configured).
int open_configured_port(const Settings *settings, int flags, const char *thread);
// The port is lost: logs it under `thread`, looks every 2 s whether the path is back, and opens it anew. An open that fails because the
// device went away again, or because another process has it, goes on waiting. The writer lets the reader, who locks the port, be first. A descriptor, or -1 when the daemon stops or the port cannot be opened.
int reopen_lost_port(const Settings *settings, int flags, const char *thread);
// Does `path` still lead to the very device or file that `fd` has open?
bool port_is_same(int fd, const char *path);

// The whole file as a heap text with a terminating zero, freed by the caller; null after a log line. `mode` as of fopen.
char *read_file(const char *path, const char *mode);
// 1 when access(F_OK) succeeds, else 0.
int file_exists(const char *path);
// 1 when lstat succeeds (a dangling link counts), else 0.
int entry_exists(const char *path);
// The target of a symbolic link, zero-terminated, at most size - 1 bytes of it. False, and `target` untouched, when there is none.
bool read_link(const char *path, char *target, size_t size);
