// The one log of the daemon: level 6 to standard output, every other level to the system log.
#pragma once

#include <syslog.h>

// Called by main before anything else: makes sure that standard input, output and error are open and that no line ever
// blocks on standard output, be it a file, a pipe, a terminal or a socket. Without it lines are written as standard
// output takes them.
void open_log();

// Writes one line. `level` is a syslog priority (the daemon uses 3 errors, 6 information, 7 debug); `format` begins
// with "[CELMUX: %s:%d] ", whose arguments are `function` and `line`. Any thread. Never blocks on a reader of standard
// output or of the system log that has stopped reading: what cannot be written within a short while is dropped and
// counted, and the number stands in the log once there is room again. errno is preserved.
void ril_log(int level, const char *format, const char *function, int line, ...);

// A plain diagnostic on standard output, without prefix; the text carries its own line end. Any thread, as ril_log.
void print_out(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Lets the compiler check a format against its arguments, which the order of ril_log's parameters prevents.
__attribute__((format(printf, 1, 2))) inline void check_format(const char *, ...)
{
}

#define CELMUX_LOG(level, format, function, ...)                                                                       \
    do {                                                                                                               \
        if (false)                                                                                                     \
            check_format(format __VA_OPT__(, ) __VA_ARGS__);                                                           \
        ril_log(level, "[CELMUX: %s:%d] " format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__);                      \
    } while (false)
// `format` is a literal without prefix; the line names the calling function.
#define log_error(format, ...) CELMUX_LOG(LOG_ERR, format, __func__ __VA_OPT__(, ) __VA_ARGS__)
#define log_info(format, ...) CELMUX_LOG(LOG_INFO, format, __func__ __VA_OPT__(, ) __VA_ARGS__)
#define log_debug(format, ...) CELMUX_LOG(LOG_DEBUG, format, __func__ __VA_OPT__(, ) __VA_ARGS__)
