// The package's file, its pending file and the lock over both.

#include "internal.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

// How long another process may hold the lock.
constexpr long lock_wait_ms = 5000;

// The pending file is compacted whenever it grows across a multiple of this.
constexpr size_t compact_step = 4096;

int make_paths(const uci_context &ctx, std::string_view package, package_paths &paths)
{
    auto length = static_cast<int>(package.size());
    int config = snprintf(paths.config, sizeof paths.config, "%s/%.*s", ctx.confdir, length, package.data());
    int pending = snprintf(paths.pending, sizeof paths.pending, "%s/%.*s", ctx.savedir, length, package.data());
    bool fits = config > 0 && config < static_cast<int>(sizeof paths.config) && pending > 0 &&
                pending < static_cast<int>(sizeof paths.pending);
    return fits ? UCI_OK : UCI_ERR_INVAL;
}

static int error_of_open()
{
    return errno == ENOENT || errno == ENOTDIR ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
}

// Never blocks, whatever the path leads to; only a regular file is accepted.
static int open_regular(const char *path, int flags, mode_t mode, locked_file &file)
{
    file.fd = open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode);
    if (file.fd < 0)
        return error_of_open();
    if (fstat(file.fd, &file.info) == 0 && S_ISREG(file.info.st_mode))
        return UCI_OK;
    close(file.fd);
    file.fd = -1;
    return UCI_ERR_IO;
}

static long now_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// flock has no time limit of its own, and a signal would belong to the whole process.
static bool wait_for_lock(int fd, int operation, long deadline)
{
    long pause_ns = 100000;
    while (flock(fd, operation | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || now_ms() >= deadline)
            return false;
        struct timespec pause = {0, pause_ns};
        nanosleep(&pause, nullptr);
        if (pause_ns < 2000000)
            pause_ns *= 2;
    }
    return true;
}

int file_lock(const char *path, bool exclusive, locked_file &file)
{
    long deadline = now_ms() + lock_wait_ms;
    do {
        int err = open_regular(path, O_RDONLY, 0, file);
        if (err != UCI_OK)
            return err;
        if (!wait_for_lock(file.fd, exclusive ? LOCK_EX : LOCK_SH, deadline)) {
            close(file.fd);
            return UCI_ERR_IO;
        }
        struct stat there;
        if (stat(path, &there) == 0 && there.st_dev == file.info.st_dev && there.st_ino == file.info.st_ino)
            return UCI_OK;
        file_unlock(file.fd);
    } while (now_ms() < deadline);
    return UCI_ERR_IO;
}

void file_unlock(int fd)
{
    // A child that was forked meanwhile shares the descriptor, and the lock with it, until it runs its program.
    (void)flock(fd, LOCK_UN);
    close(fd);
}

static ssize_t read_some(int fd, char *buffer, size_t size)
{
    ssize_t got;
    do
        got = read(fd, buffer, size);
    while (got < 0 && errno == EINTR);
    return got;
}

int file_read(int fd, uci_text &out)
{
    struct stat info;
    if (fstat(fd, &info) != 0 || info.st_size > static_cast<off_t>(uci_file_limit))
        return UCI_ERR_IO;
    // One byte more shows the end without another round.
    out.capacity = static_cast<size_t>(info.st_size) + 1;
    out.data = static_cast<char *>(malloc(out.capacity));
    if (!out.data)
        return UCI_ERR_MEM;
    for (;;) {
        char more[512];
        bool full = out.size == out.capacity;
        ssize_t got =
            full ? read_some(fd, more, sizeof more) : read_some(fd, out.data + out.size, out.capacity - out.size);
        if (got < 0 || out.size > uci_file_limit)
            return UCI_ERR_IO;
        if (got == 0)
            return UCI_OK;
        if (full)
            text_append(out, {more, static_cast<size_t>(got)});
        else
            out.size += static_cast<size_t>(got);
        if (out.out_of_memory)
            return UCI_ERR_MEM;
    }
}

int pending_read(const char *path, uci_text &out)
{
    locked_file file;
    int err = open_regular(path, O_RDONLY, 0, file);
    if (err != UCI_OK)
        return err == UCI_ERR_NOTFOUND ? UCI_OK : err;
    err = file_read(file.fd, out);
    close(file.fd);
    return err;
}

int pending_open(const char *path, int &fd)
{
    locked_file file;
    int err = open_regular(path, O_WRONLY, 0, file);
    fd = file.fd;
    return err == UCI_ERR_NOTFOUND ? UCI_OK : err;
}

static bool write_all(int fd, std::string_view content)
{
    while (!content.empty()) {
        ssize_t done = write(fd, content.data(), content.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        content.remove_prefix(static_cast<size_t>(done));
    }
    return true;
}

// Makes the folder that holds `path`, and those above it.
static void make_folders(const char *path)
{
    char folder[PATH_MAX];
    size_t length = strlen(path);
    if (length >= sizeof folder)
        return;
    for (size_t i = 1; i < length; i++) {
        if (path[i] != '/')
            continue;
        memcpy(folder, path, i);
        folder[i] = 0;
        (void)mkdir(folder, 0700); // what matters is whether the file can be opened afterwards
    }
}

// The caller holds the package's lock, so nobody else uses the temporary file. Failing leaves the longer file.
static void compact_pending(const char *path, std::string_view package)
{
    char temporary[PATH_MAX];
    int length = snprintf(temporary, sizeof temporary, "%s.tmp", path);
    if (length <= 0 || length >= static_cast<int>(sizeof temporary))
        return;
    uci_text before = {};
    uci_text after = {};
    if (pending_read(path, before) == UCI_OK)
        pending_compact(package, {before.data, before.size}, after);
    if (after.size > 0 && !after.out_of_memory && after.size < before.size) {
        int fd = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
        bool written = fd >= 0 && write_all(fd, {after.data, after.size});
        if (fd >= 0)
            close(fd);
        if (fd >= 0 && (!written || rename(temporary, path) != 0))
            unlink(temporary);
    }
    text_free(before);
    text_free(after);
}

int pending_append(const char *path, std::string_view package, std::string_view lines)
{
    constexpr int flags = O_RDWR | O_CREAT | O_APPEND;
    locked_file file;
    int err = open_regular(path, flags, 0600, file);
    if (err == UCI_ERR_NOTFOUND) {
        make_folders(path);
        err = open_regular(path, flags, 0600, file);
    }
    if (err != UCI_OK)
        return UCI_ERR_IO;

    off_t size = file.info.st_size;
    char last = '\n';
    bool good = size <= static_cast<off_t>(uci_file_limit - lines.size()) && lines.size() < uci_file_limit;
    if (good && size > 0)
        good = pread(file.fd, &last, 1, size - 1) == 1;
    // A line that somebody left without its end must not take ours with it.
    if (good && (last == '\n' || write_all(file.fd, "\n")) && write_all(file.fd, lines)) {
        close(file.fd);
        if (static_cast<size_t>(size) / compact_step != (static_cast<size_t>(size) + lines.size()) / compact_step)
            compact_pending(path, package);
        return UCI_OK;
    }
    if (good)
        (void)!ftruncate(file.fd, size); // the disk is full: there is nothing better to do
    close(file.fd);
    return UCI_ERR_IO;
}

// Locked before anyone can find it by its final name.
static int write_temporary(const char *path, const struct stat &old, std::string_view content)
{
    // Left over from a process that was killed: the lock is ours, so it is nobody's.
    (void)unlink(path);
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return -1;
    // Only root may give a file away; for anybody else the file stays his own.
    (void)!fchown(fd, old.st_uid, old.st_gid);
    if (flock(fd, LOCK_EX | LOCK_NB) == 0 && write_all(fd, content) && fchmod(fd, old.st_mode & 07777) == 0 &&
        fsync(fd) == 0)
        return fd;
    close(fd);
    (void)unlink(path);
    return -1;
}

static bool sync_folder(const char *path)
{
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    return synced;
}

int file_replace(const char *path, const struct stat &old, std::string_view content, int &new_fd)
{
    new_fd = -1;
    if (content.size() > uci_file_limit)
        return UCI_ERR_IO;
    char *target = realpath(path, nullptr);
    if (!target)
        return UCI_ERR_IO;
    char *slash = strrchr(target, '/');
    char temporary[PATH_MAX];
    int length =
        snprintf(temporary, sizeof temporary, "%.*s/.%s.uci-tmp", static_cast<int>(slash - target), target, slash + 1);
    bool fits = length > 0 && length < static_cast<int>(sizeof temporary);
    int fd = fits ? write_temporary(temporary, old, content) : -1;
    int err = fd < 0 ? UCI_ERR_IO : UCI_OK;
    if (fd >= 0 && rename(temporary, target) != 0) {
        close(fd);
        (void)unlink(temporary);
        err = UCI_ERR_IO;
    } else if (fd >= 0) {
        new_fd = fd;
        slash[slash == target ? 1 : 0] = 0;
        if (!sync_folder(target))
            err = UCI_ERR_IO;
    }
    free(target);
    return err;
}
