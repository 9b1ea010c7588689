// private_root: runs a command in a folder as if that were a router's root. As root in a mount namespace of its own, as
// an ordinary user in a user namespace as well. The command takes the launcher's place (same process number, signals
// and exit status), and dies with whoever started it; with --own-pids it gets its own process numbers, and nothing that
// it started outlives it.
#include "root_view.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include <linux/capability.h>

// As the shell's own, so that a caller can tell them from the command's.
static constexpr int launcher_failed = 125;
static constexpr int cannot_execute = 126;
static constexpr int command_not_found = 127;

static constexpr const char *root_path = "/sbin:/bin:/celmux/bin:/usr/sbin:/usr/bin";

struct Options {
    std::string root;
    std::string bin;
    bool own_pids = false;
    int exec_fd = -1;
    char **command = nullptr;
};

static const char *usage_text =
    "Usage: private_root [--build DIR] [--own-pids] [--exec-fd N] ROOT COMMAND [ARGUMENT...]\n"
    "Runs COMMAND with the folder ROOT as its root. ROOT is created when it is missing and keeps what it holds.\n"
    "  --build DIR   build folder whose bin is seen as /celmux/bin (default: the one that holds this program)\n"
    "  --own-pids    own process numbers; what COMMAND leaves running is ended after it\n"
    "  --exec-fd N   close descriptor N at the moment COMMAND begins\n"
    "Exit status: COMMAND's; 125 when the root cannot be set up, 126 or 127 when COMMAND cannot be run.\n";

[[noreturn]] static void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

static std::string real_path(const std::string &path)
{
    char buffer[PATH_MAX];
    if (realpath(path.c_str(), buffer) == nullptr) {
        fail("cannot find " + path);
    }
    return buffer;
}

static std::string own_bin_folder()
{
    std::string self = real_path("/proc/self/exe");
    return self.substr(0, self.rfind('/'));
}

static bool parse_options(int argc, char **argv, Options &options)
{
    static const struct option known[] = {
        {"build", required_argument, nullptr, 'b'},
        {"own-pids", no_argument, nullptr, 'p'},
        {"exec-fd", required_argument, nullptr, 'e'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "+h", known, nullptr)) != -1;) {
        switch (c) {
        case 'b':
            options.bin = std::string(optarg) + "/bin";
            break;
        case 'p':
            options.own_pids = true;
            break;
        case 'e':
            options.exec_fd = atoi(optarg);
            break;
        case 'h':
            (void)fputs(usage_text, stdout);
            exit(0);
        default:
            return false;
        }
    }
    if (argc - optind < 2) {
        return false;
    }
    options.root = argv[optind];
    options.command = argv + optind + 1;
    return true;
}

static void write_proc_file(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail(std::string("cannot write ") + path);
    }
    (void)close(fd);
}

// Root may still lack the right to mount (in a container), and then tries what everybody may.
static void enter_namespaces(bool own_pids)
{
    int flags = CLONE_NEWNS | (own_pids ? CLONE_NEWPID : 0);
    if (geteuid() != 0 || unshare(flags) != 0) {
        uid_t uid = geteuid();
        gid_t gid = getegid();
        if (unshare(flags | CLONE_NEWUSER) != 0) {
            fail("this system allows no private namespaces");
        }
        write_proc_file("/proc/self/setgroups", "deny");
        write_proc_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n");
        write_proc_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("cannot keep mounts private");
    }
}

static void enter_root(const Options &options)
{
    mount_root_views(options.root, options.bin, options.own_pids);
    if (chroot(options.root.c_str()) != 0 || chdir("/") != 0) {
        fail("cannot enter " + options.root);
    }
    // A mistyped command in the private root must not stop the host or set its clock.
    for (unsigned long capability : {CAP_SYS_BOOT, CAP_SYS_MODULE, CAP_SYS_TIME}) {
        (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0); // without the right to drop it there is none to use it
    }
    if (setenv("PATH", root_path, 1) != 0 || setenv("HOME", "/root", 1) != 0 || setenv("SHELL", "/bin/sh", 1) != 0) {
        fail("cannot set the environment");
    }
}

static int execute(const Options &options)
{
    if (options.exec_fd >= 0) {
        (void)fcntl(options.exec_fd, F_SETFD, FD_CLOEXEC); // a wrong number only leaves nothing to close
    }
    execvp(options.command[0], options.command);
    int error = errno;
    (void)fprintf(stderr, "private_root: %s: %s\n", options.command[0], strerror(error));
    return error == ENOENT ? command_not_found : cannot_execute;
}

static sigset_t guarded_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

// Waits for `child`, passing on what asks it to end. The terminal's own signals reach it without help.
static int guard(pid_t child)
{
    (void)signal(SIGINT, SIG_IGN);
    (void)signal(SIGQUIT, SIG_IGN);
    sigset_t set = guarded_signals();
    for (;;) {
        int number = 0;
        (void)sigwait(&set, &number); // fails only for a bad set
        if (number != SIGCHLD) {
            (void)kill(child, number); // it may have ended already
            continue;
        }
        int status = 0;
        for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == child) {
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
        }
    }
}

// Asks what the command left in the background to end, and gives it a while. An interactive shell, say, does not
// listen.
static void end_the_rest()
{
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    (void)kill(-1, SIGTERM); // everything but this process
    const struct timespec tick = {0, 100'000'000};
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    for (const time_t end = now.tv_sec + 3; now.tv_sec < end; (void)clock_gettime(CLOCK_MONOTONIC, &now)) {
        pid_t reaped = 0;
        while ((reaped = waitpid(-1, nullptr, WNOHANG)) > 0) {
        }
        if (reaped < 0) {
            return;
        }
        (void)sigtimedwait(&ended, nullptr, &tick);
    }
}

// The first process of the new process numbers: with it ends everything.
static int run_first_process(const Options &options, const sigset_t &old_mask)
{
    enter_root(options);
    pid_t child = fork();
    if (child < 0) {
        fail("cannot start a process");
    }
    if (child == 0) {
        // A script's background job comes with these ignored; the shell in the root needs them.
        (void)signal(SIGINT, SIG_DFL);
        (void)signal(SIGQUIT, SIG_DFL);
        (void)sigprocmask(SIG_SETMASK, &old_mask, nullptr);
        _exit(execute(options));
    }
    if (options.exec_fd >= 0) {
        (void)close(options.exec_fd);
    }
    int status = guard(child);
    end_the_rest();
    return status;
}

static int run_with_own_pids(const Options &options)
{
    sigset_t old_mask;
    sigset_t set = guarded_signals();
    int alive[2];
    if (sigprocmask(SIG_BLOCK, &set, &old_mask) != 0 || pipe2(alive, O_CLOEXEC) != 0) {
        fail("cannot prepare a process");
    }
    pid_t child = fork();
    if (child < 0) {
        fail("cannot start a process");
    }
    if (child == 0) {
        (void)close(alive[1]);
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The launcher may have gone before that took hold.
        struct pollfd launcher = {alive[0], 0, 0};
        if (poll(&launcher, 1, 0) != 0) {
            _exit(launcher_failed);
        }
        return run_first_process(options, old_mask);
    }
    if (options.exec_fd >= 0) {
        (void)close(options.exec_fd);
    }
    return guard(child);
}

static void die_with(pid_t parent)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(launcher_failed);
    }
}

static int run(Options &options)
{
    pid_t parent = getppid();
    if (mkdir(options.root.c_str(), 0755) != 0 && errno != EEXIST) {
        fail("cannot create " + options.root);
    }
    options.root = real_path(options.root);
    options.bin = options.bin.empty() ? own_bin_folder() : real_path(options.bin);
    create_root_folders(options.root);
    enter_namespaces(options.own_pids);
    die_with(parent); // only now: new credentials clear it
    if (options.own_pids) {
        return run_with_own_pids(options);
    }
    enter_root(options);
    return execute(options);
}

int main(int argc, char **argv)
{
    Options options;
    if (!parse_options(argc, argv, options)) {
        (void)fputs(usage_text, stderr);
        return launcher_failed;
    }
    try {
        return run(options);
    } catch (const std::system_error &error) {
        (void)fprintf(stderr, "private_root: %s\n", error.what());
        return launcher_failed;
    }
}
