// Small helpers on files.
#pragma once

#include <cstddef>

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
