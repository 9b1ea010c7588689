// The file operations of the message store in one place, so that a test can link another body that fails at the n-th
// call. Each does what the system call of its name does: a result of -1 comes with errno. Interrupted calls are
// repeated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Tells one file from another, and a file from itself after it grew.
struct FileIdentity {
    uint64_t device;
    uint64_t inode;
    uint64_t size;
};

// `flags` as of open(2), O_CLOEXEC is added; a file is created readable and writable for its owner alone.
int file_open(const char *path, int flags);
ssize_t file_read(int fd, void *data, size_t size);
// Writes everything or fails.
int file_write(int fd, const void *data, size_t size);
int file_sync(int fd);
int file_truncate(int fd, uint64_t size);
int file_identity(int fd, FileIdentity *identity);
// The same of what `path` names.
int file_identity_of(const char *path, FileIdentity *identity);
int file_close(int fd);
int file_rename(const char *from, const char *to);
int file_unlink(const char *path);
int file_link(const char *from, const char *to);
// Syncs the folder that holds `path`, so that a rename in it survives a power cut.
int file_sync_folder(const char *path);
// Makes the folder that is to hold `path`, readable for all; not those above it.
int file_make_folder(const char *path);
bool file_present(const char *path);
