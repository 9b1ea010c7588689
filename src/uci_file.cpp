// Locks as libuci has them: flock on the package's file, then on the pending one. libuci does not look whether the file
// that it has locked is still the one at the path, so a commit that waited for ours would build on the old text and
// take ours away: it finds the new text there.

#include "uci_file.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "text_cut.h"
#include "waiting.h"

// libuci's error numbers.
constexpr int OK = 0;
constexpr int NO_MEMORY = 1;
constexpr int INVALID = 2;
constexpr int NOT_FOUND = 3;
constexpr int IO_FAILED = 4;

constexpr size_t FILE_SIZE_MAX = size_t{1} << 20;
constexpr long LOCK_WAIT_MS = 5000;
constexpr long READ_WAIT_MS = 2000;
constexpr long COMMIT_WAIT_MS = 2000;
constexpr long PAUSE_MS = 2;
constexpr time_t LEFT_BEHIND_S = 10; // older temporary files belong to nobody any more

UciText::~UciText()
{
    free(data);
}

static void close_locked(int fd)
{
    if (fd == -1)
        return;
    (void)flock(fd, LOCK_UN); // a child that is being started shares the descriptor for a moment
    close(fd);
}

UciFile::~UciFile()
{
    close_locked(fd);
}

static void pause_shortly()
{
    timespec pause = {0, PAUSE_MS * 1000000};
    nanosleep(&pause, nullptr);
}

static bool lock(int fd, int operation = LOCK_EX, long limit_ms = LOCK_WAIT_MS)
{
    for (long waited = 0; flock(fd, operation | LOCK_NB) != 0; waited += PAUSE_MS) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || waited >= limit_ms || !running.load())
            return false;
        pause_shortly();
    }
    return true;
}

static bool same_file(const char *path, int fd)
{
    struct stat there, here;
    return stat(path, &there) == 0 && fstat(fd, &here) == 0 && there.st_dev == here.st_dev &&
           there.st_ino == here.st_ino;
}

static int open_regular(const char *path)
{
    int fd = open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat info;
    if (fd == -1 || (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)))
        return fd;
    close(fd);
    errno = EINVAL;
    return -1;
}

static int read_text(int fd, UciText *text)
{
    struct stat info;
    if (fstat(fd, &info) != 0 || info.st_size < 0 || static_cast<size_t>(info.st_size) > FILE_SIZE_MAX)
        return IO_FAILED;
    const size_t size = static_cast<size_t>(info.st_size);
    free(text->data);
    text->size = 0;
    text->data = static_cast<char *>(malloc(size + 1));
    if (!text->data)
        return NO_MEMORY;
    while (text->size < size) {
        ssize_t got = pread(fd, text->data + text->size, size - text->size, static_cast<off_t>(text->size));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return IO_FAILED;
        text->size += static_cast<size_t>(got);
    }
    return OK;
}

static bool write_text(int fd, const char *text, size_t size)
{
    for (size_t done = 0; done < size;) {
        ssize_t count = pwrite(fd, text + done, size - done, static_cast<off_t>(done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

// Splits a path at its last slash, which is overwritten for as long as the folder is in use.
static char *last_slash(char *path)
{
    return strrchr(path, '/');
}

// Is another's commit between writing its temporary file and renaming it? It holds no lock then.
static bool other_commit(const UciFile &file)
{
    char folder[UCI_PATH_SIZE];
    char prefix[UCI_PATH_SIZE];
    snprintf(folder, sizeof folder, "%s", file.path);
    char *slash = last_slash(folder);
    int length = snprintf(prefix, sizeof prefix, ".%s.uci-", slash + 1);
    *slash = '\0';
    DIR *entries = opendir(folder);
    if (!entries)
        return false;
    bool found = false;
    while (dirent *entry = found ? nullptr : readdir(entries)) {
        struct stat info;
        if (strncmp(entry->d_name, prefix, static_cast<size_t>(length)) == 0 &&
            fstatat(dirfd(entries), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0)
            found = labs(time(nullptr) - info.st_mtime) <= LEFT_BEHIND_S;
    }
    closedir(entries);
    return found;
}

static void wait_for_other_commit(const UciFile &file)
{
    for (long waited = 0; other_commit(file) && waited < COMMIT_WAIT_MS; waited += PAUSE_MS)
        pause_shortly();
}

// A lock on a file that has been replaced in the meantime protects nothing.
static int open_config(UciFile *file, const char *path)
{
    constexpr int TRIES = 50;
    for (int i = 0; i < TRIES; i++) {
        char *real = realpath(path, nullptr);
        if (!real)
            return errno == ENOENT || errno == ENOTDIR ? NOT_FOUND : IO_FAILED;
        const bool fits = copy_text(file->path, real);
        free(real);
        file->fd = fits ? open_regular(file->path) : -1;
        if (file->fd == -1 || !lock(file->fd))
            return IO_FAILED;
        wait_for_other_commit(*file);
        if (same_file(path, file->fd))
            return OK;
        close_locked(file->fd);
        file->fd = -1;
    }
    return IO_FAILED;
}

// Locks and reads what is pending; -1 for a file that is not there.
static int open_pending(const UciFile &file, int *fd, UciText *text)
{
    *fd = open_regular(file.pending);
    if (*fd == -1)
        return errno == ENOENT || errno == ENOTDIR ? OK : IO_FAILED;
    return lock(*fd) ? read_text(*fd, text) : IO_FAILED;
}

static bool wait_until_free(const char *folder, const char *package, size_t length)
{
    char path[UCI_PATH_SIZE];
    int size = snprintf(path, sizeof path, "%s/%.*s", folder, static_cast<int>(length), package);
    int fd = size > 0 && static_cast<size_t>(size) < sizeof path ? open_regular(path) : -1;
    bool is_free = fd == -1 || lock(fd, LOCK_SH, READ_WAIT_MS);
    close_locked(fd);
    if (!is_free)
        log_error("%s is locked", path);
    return is_free;
}

bool uci_wait_until_free(const char *confdir, const char *savedir, const char *package)
{
    const size_t length = strcspn(package, ".");
    return wait_until_free(confdir, package, length) && wait_until_free(savedir, package, length);
}

int uci_file_open(UciFile *file, const char *confdir, const char *savedir, const char *package)
{
    char path[UCI_PATH_SIZE];
    int length = snprintf(path, sizeof path, "%s/%s", confdir, package);
    int pending = snprintf(file->pending, sizeof file->pending, "%s/%s", savedir, package);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path || pending < 0 ||
        static_cast<size_t>(pending) >= sizeof file->pending)
        return INVALID;
    int code = open_config(file, path);
    if (code == OK)
        code = read_text(file->fd, &file->text);
    if (code != OK)
        return code;
    int fd = -1;
    code = open_pending(*file, &fd, &file->pending_text);
    close_locked(fd);
    return code;
}

// The new file is locked before anybody can find it under its final name, and it is read back to prove that it is
// complete.
static int write_temporary(const UciFile &file, const char *path, const char *text, size_t size)
{
    struct stat info;
    (void)unlink(path); // left behind by a power cut: the lock is ours, so it is nobody's
    int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd == -1)
        return -1;
    UciText proof;
    bool good = fstat(file.fd, &info) == 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && write_text(fd, text, size) &&
                fchmod(fd, info.st_mode & 07777) == 0 && fsync(fd) == 0 && read_text(fd, &proof) == OK &&
                proof.size == size && memcmp(proof.data, text, size) == 0;
    if (!good) {
        close(fd);
        (void)unlink(path);
        return -1;
    }
    (void)!fchown(fd, info.st_uid, info.st_gid); // only root may give a file away
    return fd;
}

static void sync_folder(char *path)
{
    char *slash = last_slash(path);
    *slash = '\0';
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    *slash = '/';
    if (fd == -1)
        return;
    (void)fsync(fd); // the rename is done; a disk that fails now can only be believed or not
    close(fd);
}

// The kernel gives a write lease only to a process that alone has the file open. On a file system without leases the
// file counts as not open anywhere else.
static bool others_have_it_open(int fd)
{
    if (fcntl(fd, F_SETLEASE, F_WRLCK) != 0)
        return errno == EAGAIN;
    (void)fcntl(fd, F_SETLEASE, F_UNLCK);
    return false;
}

// A process that waited for the old file holds its lock now, which does not protect the new file. No change may begin
// until that process has put its own file in place.
static void see_waiters_off(const UciFile &file)
{
    (void)flock(file.fd, LOCK_UN);
    for (long waited = 0; others_have_it_open(file.fd) && waited < COMMIT_WAIT_MS; waited += PAUSE_MS)
        pause_shortly();
    wait_for_other_commit(file);
}

// Puts the temporary file in place while nobody can add to what is pending. *current becomes false when somebody has
// added to it before or has put a file of their own there.
static bool move_into_place(const UciFile &file, const char *temporary, bool *current)
{
    int pending = -1;
    UciText now;
    wait_for_other_commit(file);
    bool good = open_pending(file, &pending, &now) == OK;
    *current = same_file(file.path, file.fd) && now.size == file.pending_text.size &&
               (now.size == 0 || memcmp(now.data, file.pending_text.data, now.size) == 0);
    good = good && *current && rename(temporary, file.path) == 0;
    if (good && pending != -1)
        (void)!ftruncate(pending, 0); // else it is applied once more, to the same effect
    close_locked(pending);
    return good;
}

int uci_file_replace(UciFile *file, const char *text, size_t size, bool *current)
{
    char temporary[UCI_PATH_SIZE];
    const char *name = last_slash(file->path) + 1;
    int length = snprintf(temporary, sizeof temporary, "%.*s.%s.celmux-tmp", static_cast<int>(name - file->path),
                          file->path, name);
    *current = true;
    if (length < 0 || static_cast<size_t>(length) >= sizeof temporary || size > FILE_SIZE_MAX)
        return IO_FAILED;
    int fd = write_temporary(*file, temporary, text, size);
    if (fd == -1 || !move_into_place(*file, temporary, current)) {
        if (*current)
            log_error("cannot write %s: %s", file->path, strerror(errno));
        if (fd != -1) {
            close(fd);
            (void)unlink(temporary);
        }
        return IO_FAILED;
    }
    sync_folder(file->path);
    if (write_text(file->fd, text, size))
        (void)!ftruncate(file->fd, static_cast<off_t>(size));
    close_locked(fd);
    see_waiters_off(*file);
    return OK;
}

bool uci_pending_read(const char *savedir, const char *package, UciText *text, time_t *changed)
{
    UciFile file;
    int length = snprintf(file.pending, sizeof file.pending, "%s/%s", savedir, package);
    int fd = -1;
    struct stat info;
    const bool read = length > 0 && static_cast<size_t>(length) < sizeof file.pending &&
                      open_pending(file, &fd, text) == OK && fd != -1 && fstat(fd, &info) == 0;
    if (read)
        *changed = info.st_mtime;
    close_locked(fd);
    return read;
}

static bool make_file(const char *folder, const char *package, const UciText &text)
{
    char path[UCI_PATH_SIZE];
    int length = snprintf(path, sizeof path, "%s/%s", folder, package);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path)
        return false;
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    bool written = fd != -1 && write_text(fd, text.data, text.size);
    if (fd != -1)
        close(fd);
    return written;
}

int uci_file_copy(const UciFile &file, const char *savedir, const char *package, UciCopy *copy)
{
    int length = snprintf(copy->config, sizeof copy->config, "%s-celmux-XXXXXX", savedir);
    bool good =
        length > 0 && static_cast<size_t>(length) < sizeof copy->config - 8 && copy_text(copy->package, package);
    if (!good || !mkdtemp(copy->config)) {
        copy->config[0] = '\0';
        return IO_FAILED;
    }
    snprintf(copy->saved, sizeof copy->saved, "%s/saved", copy->config);
    good = mkdir(copy->saved, 0700) == 0 && make_file(copy->config, package, file.text);
    if (good && file.pending_text.size > 0)
        good = make_file(copy->saved, package, file.pending_text);
    return good ? OK : IO_FAILED;
}

UciCopy::~UciCopy()
{
    if (!config[0])
        return;
    const char *const folders[] = {saved, config};
    for (const char *folder : folders) {
        char path[UCI_PATH_SIZE];
        int length = snprintf(path, sizeof path, "%s/%s", folder, package);
        if (length > 0 && static_cast<size_t>(length) < sizeof path)
            (void)unlink(path);
        (void)rmdir(folder);
    }
}
