// Small helpers on files and on times.
#pragma once

#include <cstddef>
#include <ctime>

// The whole file as a heap text with a terminating zero, freed by the caller; null after a log line. `mode` as of
// fopen.
char *read_file(const char *path, const char *mode);
// 1 when access(F_OK) succeeds, else 0.
int file_exists(const char *path);
// 1 when lstat succeeds (a dangling link counts), else 0.
int entry_exists(const char *path);
// The target of a symbolic link, zero-terminated, at most size - 1 bytes of it. False, and `target` untouched, when
// there is none.
bool read_link(const char *path, char *target, size_t size);

void ms_to_timespec(timespec *out, double ms);
// out = end - start, seconds and nanoseconds with the same sign.
void timespec_diff(const timespec *start, const timespec *end, timespec *out);
// 1 when a is earlier than b, else 0.
int timespec_before(const timespec *a, const timespec *b);
