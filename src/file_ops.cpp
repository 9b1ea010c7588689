#include "file_ops.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr mode_t OWNER_ONLY = 0600;

int file_open(const char *path, int flags)
{
    int fd;
    do
        fd = open(path, flags | O_CLOEXEC, OWNER_ONLY);
    while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t file_read(int fd, void *data, size_t size)
{
    ssize_t got;
    do
        got = read(fd, data, size);
    while (got < 0 && errno == EINTR);
    return got;
}

int file_write(int fd, const void *data, size_t size)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    while (size > 0) {
        ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return -1;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

int file_sync(int fd)
{
    int result;
    do
        result = fsync(fd);
    while (result < 0 && errno == EINTR);
    return result;
}

int file_truncate(int fd, uint64_t size)
{
    int result;
    do
        result = ftruncate(fd, static_cast<off_t>(size));
    while (result < 0 && errno == EINTR);
    return result;
}

static FileIdentity identity_of(const struct stat &status)
{
    return {static_cast<uint64_t>(status.st_dev), static_cast<uint64_t>(status.st_ino),
            static_cast<uint64_t>(status.st_size)};
}

int file_identity(int fd, FileIdentity *identity)
{
    struct stat status;
    if (fstat(fd, &status) < 0)
        return -1;
    *identity = identity_of(status);
    return 0;
}

int file_identity_of(const char *path, FileIdentity *identity)
{
    struct stat status;
    if (stat(path, &status) < 0)
        return -1;
    *identity = identity_of(status);
    return 0;
}

int file_close(int fd)
{
    return close(fd);
}

int file_rename(const char *from, const char *to)
{
    return rename(from, to);
}

int file_unlink(const char *path)
{
    return unlink(path);
}

int file_link(const char *from, const char *to)
{
    return link(from, to);
}

// "." without a folder in the path. False when it is too long.
static bool folder_of(const char *path, char folder[PATH_MAX])
{
    const char *slash = strrchr(path, '/');
    int length = slash ? static_cast<int>(slash - path) + 1 : 0;
    if (length >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    snprintf(folder, PATH_MAX, "%.*s", length ? length : 1, length ? path : ".");
    return true;
}

int file_sync_folder(const char *path)
{
    char folder[PATH_MAX];
    if (!folder_of(path, folder))
        return -1;
    int fd = file_open(folder, O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return -1;
    int result = file_sync(fd);
    int error = errno;
    (void)close(fd); // nothing was written through it
    if (result < 0 && error == EINVAL)
        return 0; // this file system has no sync of a folder
    errno = error;
    return result;
}

int file_make_folder(const char *path)
{
    constexpr mode_t READABLE = 0755;
    char folder[PATH_MAX];
    return folder_of(path, folder) ? mkdir(folder, READABLE) : -1;
}

bool file_present(const char *path)
{
    return access(path, F_OK) == 0;
}
