#include "private_root.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string unique_folder()
{
    static std::atomic<int> count{0};
    return std::string(BUILD_DIR) + "/roots/" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

PrivateRoot::PrivateRoot() : folder_(unique_folder()), root_(folder_ + "/root")
{
    fs::remove_all(folder_); // left by a process that had this number before
    fs::create_directories(root_);
    fs::copy(ROOT_DATA_DIR, root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    ShellResult made = shell("true");
    if (made.status != 0) {
        throw std::runtime_error("no private root: " + made.errors);
    }
    syslog_ = std::make_unique<SyslogSink>(root_ + "/dev");
}

PrivateRoot::~PrivateRoot()
{
    kill_all();
    syslog_.reset();
    if (getenv("CELMUX_KEEP_ROOTS") == nullptr) {
        std::error_code ignored; // a file that stays under the build folder does no harm
        fs::remove_all(folder_, ignored);
    }
}

ProcessOptions PrivateRoot::options_for(const std::string &name)
{
    std::string base = folder_ + "/" + std::to_string(++started_) + "-" + fs::path(name).filename().string();
    ProcessOptions options;
    options.output_path = base + ".out";
    options.error_path = base + ".err";
    return options;
}

// The pipe's other end closes when the command begins or the launcher fails.
static void wait_for_begin(int fd)
{
    struct pollfd begun = {fd, 0, 0};
    int ready = 0;
    do {
        ready = poll(&begun, 1, static_cast<int>(patience.count()));
    } while (ready < 0 && errno == EINTR);
    (void)close(fd);
    if (ready <= 0) {
        throw std::runtime_error("a process in a private root did not begin");
    }
}

Process PrivateRoot::start(const std::vector<std::string> &argv, const std::vector<std::string> &env,
                           int blocked_signal)
{
    int begin[2];
    if (pipe2(begin, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    std::vector<std::string> launched = {std::string(PROGRAM_DIR) + "/private_root", "--exec-fd",
                                         std::to_string(begin[1]), root_};
    launched.insert(launched.end(), argv.begin(), argv.end());
    ProcessOptions options = options_for(argv.at(0));
    options.env = env;
    options.inherited_fd = begin[1];
    options.blocked_signal = blocked_signal;
    Process process = Process::start(launched, options);
    (void)close(begin[1]);
    wait_for_begin(begin[0]);
    return process;
}

ShellResult PrivateRoot::result_of(Process &process, std::chrono::milliseconds limit)
{
    std::optional<ExitStatus> status = process.wait_exit(limit);
    ShellResult result = {-1, process.output(), process.errors()};
    if (status) {
        result.status = status->signal != 0 ? 128 + status->signal : status->code;
    }
    return result;
}

ShellResult PrivateRoot::shell(const std::string &command, std::chrono::milliseconds limit)
{
    Process process = start({"sh", "-c", command});
    return result_of(process, limit);
}

ShellResult PrivateRoot::host_program(const std::string &name, const std::vector<std::string> &arguments,
                                      std::chrono::milliseconds limit)
{
    std::vector<std::string> argv = {std::string(PROGRAM_DIR) + "/" + name};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ProcessOptions options = options_for(name);
    options.working_folder = root_;
    Process process = Process::start(argv, options);
    return result_of(process, limit);
}

std::string PrivateRoot::path(const std::string &in_root) const
{
    return root_ + (in_root.starts_with('/') ? "" : "/") + in_root;
}

std::string PrivateRoot::read_file(const std::string &in_root) const
{
    return read_whole_file(path(in_root));
}

void PrivateRoot::write_file(const std::string &in_root, const std::string &text) const
{
    fs::path target = path(in_root);
    fs::create_directories(target.parent_path());
    std::ofstream file(target, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + target.string());
    }
}

bool PrivateRoot::exists(const std::string &in_root) const
{
    return fs::exists(fs::symlink_status(path(in_root)));
}

void PrivateRoot::remove(const std::string &in_root) const
{
    fs::remove_all(path(in_root));
}

std::vector<pid_t> PrivateRoot::processes() const
{
    std::vector<pid_t> result;
    struct stat own;
    if (stat(root_.c_str(), &own) != 0) {
        return result;
    }
    for (const auto &entry : fs::directory_iterator("/proc")) {
        pid_t pid = atoi(entry.path().filename().c_str());
        struct stat theirs;
        if (pid > 0 && stat((entry.path() / "root").c_str(), &theirs) == 0 && theirs.st_dev == own.st_dev &&
            theirs.st_ino == own.st_ino) {
            result.push_back(pid);
        }
    }
    return result;
}

// What went into the background is nobody's child any more. Dead ones keep no root, so the list ends empty.
void PrivateRoot::kill_all() const
{
    (void)wait_for([&] {
        std::vector<pid_t> left = processes();
        for (pid_t pid : left) {
            (void)kill(pid, SIGKILL);
        }
        return left.empty();
    });
}
