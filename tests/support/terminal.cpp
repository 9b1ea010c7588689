#include "terminal.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

using std::chrono::steady_clock;

Terminal::Terminal(PrivateRoot &root, const std::vector<std::string> &argv, unsigned short columns,
                   unsigned short lines)
{
    std::vector<std::string> launched = {std::string(PROGRAM_DIR) + "/private_root", root.path("/")};
    launched.insert(launched.end(), argv.begin(), argv.end());
    std::vector<char *> words;
    for (std::string &word : launched)
        words.push_back(word.data());
    words.push_back(nullptr);
    struct winsize size = {lines, columns, 0, 0};
    pid_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (pid_ < 0)
        throw std::system_error(errno, std::generic_category(), "forkpty");
    if (pid_ == 0) {
        (void)setenv("TERM", "xterm", 1);
        (void)unsetenv("NO_COLOR");
        (void)execv(words[0], words.data());
        _exit(127);
    }
}

Terminal::~Terminal()
{
    if (!status_) {
        (void)kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
    (void)close(fd_);
}

void Terminal::type(const std::string &text)
{
    if (write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::system_error(errno, std::generic_category(), "typing");
}

// False at the end of the output and when the time is up.
bool Terminal::read_some(steady_clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
    struct pollfd readable = {fd_, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(std::max<long long>(left, 0))) <= 0)
        return false;
    char bytes[4096];
    ssize_t count = read(fd_, bytes, sizeof(bytes)); // EIO once nobody has the terminal open
    if (count <= 0)
        return false;
    output_.append(bytes, static_cast<size_t>(count));
    return true;
}

bool Terminal::wait_for(const std::string &text, size_t from, std::chrono::milliseconds limit)
{
    auto deadline = steady_clock::now() + limit;
    while (output_.find(text, from) == std::string::npos)
        if (!read_some(deadline))
            return false;
    return true;
}

std::optional<int> Terminal::wait_exit(std::chrono::milliseconds limit)
{
    auto deadline = steady_clock::now() + limit;
    while (read_some(deadline))
        ;
    int status = 0;
    while (!status_ && steady_clock::now() < deadline) {
        pid_t ended = waitpid(pid_, &status, WNOHANG);
        if (ended == pid_)
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        else
            (void)poll(nullptr, 0, 5);
    }
    return status_;
}

bool Terminal::echoes() const
{
    struct termios settings;
    return tcgetattr(fd_, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
}
