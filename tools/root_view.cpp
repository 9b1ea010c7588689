#include "root_view.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

static constexpr const char *folders[] = {
    "bin",
    "sbin",
    "etc",
    "etc/config",
    "etc/init.d",
    "data",
    "tmp",
    "var",
    "var/run",
    "var/run/ubus",
    "var/log",
    "dev",
    "proc",
    "root",
    "usr",
    "rom",
    "celmux",
    "celmux/bin",
    "celmux/host_dev",
    "dev/pts",
};

// The tools that a router's shell commands use. What acts on the machine (reboot, mount, insmod, ...) has no name here.
static constexpr const char *applets[] = {
    "[",       "ash",   "awk",      "basename", "cat",   "chmod",    "cmp",  "cp",    "cut",    "date",
    "dd",      "df",    "diff",     "dirname",  "echo",  "egrep",    "env",  "expr",  "false",  "fgrep",
    "find",    "grep",  "head",     "hexdump",  "id",    "kill",     "less", "ln",    "logger", "ls",
    "md5sum",  "mkdir", "mkfifo",   "mktemp",   "more",  "mv",       "nc",   "od",    "pidof",  "printf",
    "ps",      "pwd",   "readlink", "realpath", "rm",    "rmdir",    "sed",  "seq",   "sh",     "sleep",
    "sort",    "stat",  "strings",  "stty",     "sync",  "syslogd",  "tail", "tee",   "test",   "time",
    "timeout", "top",   "touch",    "tr",       "true",  "truncate", "tty",  "uname", "uniq",   "usleep",
    "vi",      "watch", "wc",       "which",    "xargs", "xxd",      "yes",
};

static constexpr const char *devices[] = {"null", "zero", "full", "random", "urandom", "tty"};

static constexpr struct {
    const char *name;
    const char *target;
} device_links[] = {
    {"fd", "/proc/self/fd"},
    // The kernel looks for pts beside ptmx, so ptmx works only in its own folder.
    {"ptmx", "/celmux/host_dev/ptmx"},
    {"stdin", "/proc/self/fd/0"},
    {"stdout", "/proc/self/fd/1"},
    {"stderr", "/proc/self/fd/2"},
};

static constexpr const char *library_folders[] = {"lib", "lib32", "lib64", "libx32"};

[[noreturn]] static void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

static bool exists(const std::string &path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

static void make_folder(const std::string &path)
{
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        fail("cannot create " + path);
    }
}

static void make_link(const std::string &target, const std::string &path)
{
    if (symlink(target.c_str(), path.c_str()) != 0 && errno != EEXIST) {
        fail("cannot create " + path);
    }
}

// A merged /usr makes /lib a link; other systems have a folder there.
static bool is_link(const std::string &path, std::string &target)
{
    char text[256];
    ssize_t length = readlink(path.c_str(), text, sizeof(text));
    if (length <= 0 || length == static_cast<ssize_t>(sizeof(text))) {
        return false;
    }
    target.assign(text, static_cast<size_t>(length));
    return true;
}

static void make_device_file(const std::string &path)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) {
        fail("cannot create " + path);
    }
    if (fd >= 0) {
        (void)close(fd); // nothing was written
    }
}

void create_root_folders(const std::string &root)
{
    for (const char *folder : folders) {
        make_folder(root + "/" + folder);
    }
    for (const char *folder : library_folders) {
        std::string target;
        std::string host = std::string("/") + folder;
        if (is_link(host, target)) {
            make_link(target, root + host);
        } else if (exists(host)) {
            make_folder(root + host);
        }
    }
    make_link("/usr/bin/busybox", root + "/bin/busybox");
    for (const char *applet : applets) {
        make_link("busybox", root + "/bin/" + applet);
    }
    for (const char *device : devices) {
        make_device_file(root + "/dev/" + device);
    }
    for (const auto &link : device_links) {
        make_link(link.target, root + "/dev/" + link.name);
    }
}

static void bind(const std::string &from, const std::string &to)
{
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        fail("cannot mount " + from + " on " + to);
    }
}

// Flags that a user namespace must not clear when it mounts again.
static unsigned long locked_flags(const std::string &path)
{
    struct statvfs status;
    if (statvfs(path.c_str(), &status) != 0) {
        return 0;
    }
    static constexpr struct {
        unsigned long seen;
        unsigned long set;
    } flags[] = {
        {ST_NOSUID, MS_NOSUID},   {ST_NODEV, MS_NODEV},           {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME}, {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    unsigned long result = 0;
    for (const auto &flag : flags) {
        result |= (status.f_flag & flag.seen) != 0 ? flag.set : 0;
    }
    return result;
}

static void bind_read_only(const std::string &from, const std::string &to)
{
    bind(from, to);
    struct mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, to.c_str(), AT_RECURSIVE, &attributes, sizeof(attributes)) == 0) {
        return;
    }
    // Older kernels, and containers that filter the call, have the older way, which leaves out mounts below.
    unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | locked_flags(to);
    if (mount(nullptr, to.c_str(), nullptr, flags, nullptr) != 0) {
        fail("cannot make " + to + " read-only");
    }
}

void mount_root_views(const std::string &root, const std::string &bin, bool own_pids)
{
    bind_read_only("/usr", root + "/usr");
    for (const char *folder : library_folders) {
        std::string target;
        std::string host = std::string("/") + folder;
        if (!is_link(host, target) && exists(host)) {
            bind_read_only(host, root + host);
        }
    }
    bind_read_only(bin, root + "/celmux/bin");
    for (const char *device : devices) {
        std::string host = std::string("/dev/") + device;
        if (exists(host)) {
            bind(host, root + host);
        }
    }
    bind("/dev/pts", root + "/dev/pts");
    bind("/dev", root + "/celmux/host_dev");
    std::string proc = root + "/proc";
    unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    if (!own_pids || mount("proc", proc.c_str(), "proc", flags, nullptr) != 0) {
        bind("/proc", proc);
    }
}
