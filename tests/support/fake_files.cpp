#include "fake_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>

#include "file_ops.h"

struct Inode {
    std::string live;
    std::string synced;
    uint64_t number;
};

struct Descriptor {
    std::shared_ptr<Inode> inode;
    size_t offset;
};

using Folder = std::map<std::string, std::shared_ptr<Inode>>;

constexpr int FOLDER_FD = 999;

FakeFiles fake_files;
static std::recursive_mutex files_mutex; // guards what is below and the counters of fake_files
static Folder live_folder, synced_folder;
static std::map<int, Descriptor> open_files;
static int next_fd;
static uint64_t next_inode;

#define LOCKED std::lock_guard guard(files_mutex)

static bool fails()
{
    fake_files.calls++;
    if (fake_files.fail_at == 0 || fake_files.calls < fake_files.fail_at ||
        (fake_files.calls > fake_files.fail_at && !fake_files.cut))
        return false;
    errno = EIO;
    return true;
}

void FakeFiles::reset()
{
    LOCKED;
    *this = FakeFiles();
    live_folder.clear();
    synced_folder.clear();
    open_files.clear();
    next_fd = 1000;
}

void FakeFiles::put(const std::string &path, const std::string &content)
{
    LOCKED;
    live_folder[path] = std::make_shared<Inode>(Inode{content, content, ++next_inode});
    synced_folder[path] = live_folder[path];
}

bool FakeFiles::has(const std::string &path) const
{
    LOCKED;
    return live_folder.count(path) != 0;
}

std::string FakeFiles::content(const std::string &path) const
{
    LOCKED;
    auto found = live_folder.find(path);
    return found == live_folder.end() ? "(none)" : found->second->live;
}

static FakeFiles::Disk disk_of(const Folder &folder, std::string (*content)(const Inode &))
{
    FakeFiles::Disk disk;
    for (const auto &[path, inode] : folder)
        disk[path] = content(*inode);
    return disk;
}

std::vector<FakeFiles::Disk> FakeFiles::after_cut() const
{
    LOCKED;
    auto live = [](const Inode &inode) { return inode.live; };
    auto synced = [](const Inode &inode) { return inode.synced; };
    auto half = [](const Inode &inode) {
        size_t more = inode.live.size() > inode.synced.size() ? inode.live.size() - inode.synced.size() : 0;
        return inode.synced + inode.live.substr(inode.synced.size(), more / 2);
    };
    auto zeros = [](const Inode &inode) {
        std::string content = inode.synced;
        content.resize(std::max(inode.live.size(), content.size()), '\0');
        return content;
    };
    std::vector<Disk> disks = {disk_of(live_folder, live)};
    for (const Folder &folder : {live_folder, synced_folder})
        for (auto content : {+synced, +half, +zeros})
            disks.push_back(disk_of(folder, content));
    return disks;
}

void FakeFiles::restore(const Disk &disk)
{
    reset();
    for (const auto &[path, content] : disk)
        put(path, content);
}

int file_open(const char *path, int flags)
{
    LOCKED;
    bool writes = (flags & O_ACCMODE) != O_RDONLY;
    if (!writes && fake_files.open_error) {
        errno = fake_files.open_error;
        return -1;
    }
    if (writes && fails())
        return -1;
    auto found = live_folder.find(path);
    if (found == live_folder.end() && (!(flags & O_CREAT) || fake_files.no_folder)) {
        errno = ENOENT;
        return -1;
    }
    if (found != live_folder.end() && (flags & O_EXCL)) {
        errno = EEXIST;
        return -1;
    }
    if (found == live_folder.end())
        found = live_folder.emplace(path, std::make_shared<Inode>(Inode{"", "", ++next_inode})).first;
    if (flags & O_TRUNC)
        found->second->live.clear();
    open_files[next_fd] = {found->second, 0};
    return next_fd++;
}

ssize_t file_read(int fd, void *data, size_t size)
{
    LOCKED;
    Descriptor &file = open_files.at(fd);
    if (fake_files.read_limit >= 0 && file.offset >= static_cast<size_t>(fake_files.read_limit)) {
        errno = EIO;
        return -1;
    }
    size_t got = file.inode->live.copy(static_cast<char *>(data), size, file.offset);
    file.offset += got;
    return static_cast<ssize_t>(got);
}

int file_write(int fd, const void *data, size_t size)
{
    LOCKED;
    bool failed = fails();
    if (!(failed && fake_files.cut && fake_files.calls > fake_files.fail_at))
        open_files.at(fd).inode->live.append(static_cast<const char *>(data), failed ? size / 2 : size);
    return failed ? -1 : 0;
}

int file_sync(int fd)
{
    LOCKED;
    if (fails())
        return -1;
    Inode &inode = *open_files.at(fd).inode;
    inode.synced = inode.live;
    return 0;
}

int file_truncate(int fd, uint64_t size)
{
    LOCKED;
    if (fails())
        return -1;
    open_files.at(fd).inode->live.resize(size);
    return 0;
}

int file_identity(int fd, FileIdentity *identity)
{
    LOCKED;
    const Inode &inode = *open_files.at(fd).inode;
    *identity = {1, inode.number, inode.live.size()};
    return 0;
}

int file_identity_of(const char *path, FileIdentity *identity)
{
    LOCKED;
    auto found = live_folder.find(path);
    if (found == live_folder.end()) {
        errno = ENOENT;
        return -1;
    }
    *identity = {1, found->second->number, found->second->live.size()};
    return 0;
}

int file_close(int fd)
{
    LOCKED;
    open_files.erase(fd);
    return 0;
}

int file_rename(const char *from, const char *to)
{
    LOCKED;
    if (fails())
        return -1;
    live_folder[to] = live_folder.at(from);
    live_folder.erase(from);
    return 0;
}

int file_unlink(const char *path)
{
    LOCKED;
    if (fails())
        return -1;
    return live_folder.erase(path) ? 0 : -1;
}

int file_link(const char *from, const char *to)
{
    LOCKED;
    if (fails() || live_folder.count(to))
        return -1;
    live_folder[to] = live_folder.at(from);
    return 0;
}

int file_sync_folder(const char *)
{
    LOCKED;
    if (fails())
        return -1;
    synced_folder = live_folder;
    return 0;
}

int file_make_folder(const char *)
{
    LOCKED;
    fake_files.no_folder = false;
    return 0;
}

bool file_present(const char *path)
{
    return fake_files.has(path);
}
