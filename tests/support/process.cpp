#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

extern char **environ;

[[noreturn]] static void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

static std::vector<char *> pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (const std::string &text : texts) {
        result.push_back(const_cast<char *>(text.c_str()));
    }
    result.push_back(nullptr);
    return result;
}

static std::vector<std::string> environment_with(const std::vector<std::string> &added)
{
    std::vector<std::string> result = added;
    for (char **entry = environ; *entry != nullptr; entry++) {
        std::string text = *entry;
        std::string name = text.substr(0, text.find('=') + 1);
        bool replaced = std::any_of(added.begin(), added.end(), [&](const auto &a) { return a.starts_with(name); });
        if (!replaced) {
            result.push_back(text);
        }
    }
    return result;
}

// Between fork and exec of a process with threads: nothing here allocates.
struct ChildPlan {
    char *const *argv;
    char *const *env;
    const char *output_path;
    const char *error_path;
    const char *working_folder;
    int inherited_fd;
    int blocked_signal;
    pid_t parent;
};

static bool redirect(const char *path, int flags, int fd)
{
    int opened = open(path, flags | O_CLOEXEC, 0644);
    return opened >= 0 && dup2(opened, fd) == fd;
}

[[noreturn]] static void become(const ChildPlan &plan)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    if (plan.blocked_signal != 0) {
        sigaddset(&blocked, plan.blocked_signal);
    }
    for (int number = 1; number < NSIG; number++) {
        (void)signal(number, SIG_DFL); // SIGKILL and SIGSTOP refuse
    }
    (void)sigprocmask(SIG_SETMASK, &blocked, nullptr);
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int written = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    bool ready = getppid() == plan.parent && redirect("/dev/null", O_RDONLY, STDIN_FILENO) &&
                 redirect(plan.output_path, written, STDOUT_FILENO) &&
                 redirect(plan.error_path, written, STDERR_FILENO) &&
                 (*plan.working_folder == '\0' || chdir(plan.working_folder) == 0) &&
                 (plan.inherited_fd < 0 || fcntl(plan.inherited_fd, F_SETFD, 0) == 0);
    if (ready) {
        execve(plan.argv[0], plan.argv, plan.env);
    }
    _exit(127);
}

Process Process::start(const std::vector<std::string> &argv, const ProcessOptions &options)
{
    std::vector<char *> arguments = pointers(argv);
    std::vector<std::string> variables = environment_with(options.env);
    std::vector<char *> env = pointers(variables);
    const char *nowhere = "/dev/null";
    ChildPlan plan = {
        arguments.data(),
        env.data(),
        options.output_path.empty() ? nowhere : options.output_path.c_str(),
        options.error_path.empty() ? nowhere : options.error_path.c_str(),
        options.working_folder.c_str(),
        options.inherited_fd,
        options.blocked_signal,
        getpid(),
    };
    Process process;
    process.options_ = options;
    process.pid_ = fork();
    if (process.pid_ == 0) {
        become(plan);
    }
    if (process.pid_ < 0) {
        fail("cannot start " + argv[0]);
    }
    process.pid_fd_ = static_cast<int>(syscall(SYS_pidfd_open, process.pid_, 0));
    if (process.pid_fd_ < 0) {
        fail("cannot watch " + argv[0]);
    }
    return process;
}

Process::Process(Process &&other) noexcept
{
    *this = std::move(other);
}

Process &Process::operator=(Process &&other) noexcept
{
    if (this != &other) {
        end();
        pid_ = std::exchange(other.pid_, -1);
        pid_fd_ = std::exchange(other.pid_fd_, -1);
        options_ = std::move(other.options_);
        status_ = other.status_;
    }
    return *this;
}

Process::~Process()
{
    end();
}

void Process::end()
{
    if (pid_ > 0 && !status_) {
        (void)kill(pid_, SIGKILL); // unreaped, so the number is still its own
        (void)waitpid(pid_, nullptr, 0);
    }
    if (pid_fd_ >= 0) {
        (void)close(pid_fd_);
    }
    pid_ = -1;
    pid_fd_ = -1;
}

bool Process::running()
{
    return pid_ > 0 && !wait_exit(std::chrono::milliseconds(0));
}

void Process::signal(int number)
{
    if (pid_ > 0 && !status_) {
        (void)kill(pid_, number);
    }
}

std::optional<ExitStatus> Process::wait_exit(std::chrono::milliseconds limit)
{
    if (status_ || pid_ < 0) {
        return status_;
    }
    struct pollfd ended = {pid_fd_, POLLIN, 0};
    auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        int ready = poll(&ended, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready > 0) {
            break;
        }
        if (ready == 0) {
            return std::nullopt;
        }
        if (errno != EINTR) {
            fail("poll");
        }
    }
    ExitStatus result = {-1, 0, std::chrono::steady_clock::now()};
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) {
        fail("waitpid");
    }
    if (WIFEXITED(status)) {
        result.code = WEXITSTATUS(status);
    } else {
        result.signal = WTERMSIG(status);
    }
    status_ = result;
    return status_;
}

ExitStatus Process::stop(std::chrono::milliseconds limit)
{
    signal(SIGTERM);
    if (!wait_exit(limit)) {
        signal(SIGKILL);
    }
    std::optional<ExitStatus> status = wait_exit();
    if (!status) {
        errno = ETIMEDOUT;
        fail("a process cannot be ended");
    }
    return *status;
}

std::string Process::output() const
{
    return read_whole_file(options_.output_path);
}

std::string Process::errors() const
{
    return read_whole_file(options_.error_path);
}

std::vector<std::string> Process::output_lines() const
{
    std::string text = output();
    return split_lines(text.substr(0, text.rfind('\n') + 1));
}

bool Process::wait_for_output(const std::string &text, std::chrono::milliseconds limit) const
{
    return wait_for([&] { return output().find(text) != std::string::npos; }, limit);
}

std::string read_whole_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}
