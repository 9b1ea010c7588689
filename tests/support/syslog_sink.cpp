#include "syslog_sink.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

[[noreturn]] static void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// The folder's path may be longer than a socket address holds; its descriptor's name never is.
static void bind_in_folder(int fd, const std::string &folder)
{
    int folder_fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder_fd < 0) {
        fail("syslog folder");
    }
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string path = "/proc/self/fd/" + std::to_string(folder_fd) + "/log";
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    (void)unlink(path.c_str()); // one left by an earlier sink
    int bound = bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    (void)chmod(path.c_str(), 0666);
    (void)close(folder_fd);
    if (bound != 0) {
        fail("syslog socket");
    }
}

SyslogSink::SyslogSink(const std::string &folder)
{
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || pipe2(stop_pipe_, O_CLOEXEC) != 0) {
        fail("syslog socket");
    }
    bind_in_folder(socket_, folder);
    collector_ = std::thread([this] { collect(); });
}

SyslogSink::~SyslogSink()
{
    (void)close(stop_pipe_[1]);
    collector_.join();
    if (left_behind_ != 0 && testing::UnitTest::GetInstance()->current_test_info() != nullptr) {
        ADD_FAILURE() << left_behind_ << " stops left a thread behind";
    }
    (void)close(stop_pipe_[0]);
    (void)close(socket_);
}

void SyslogSink::collect()
{
    std::string buffer(65536, '\0');
    struct pollfd watched[2] = {{socket_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    while (watched[1].revents == 0) {
        if (poll(watched, 2, -1) < 0) {
            continue;
        }
        std::lock_guard taking(taking_);
        ssize_t length = 0;
        while ((length = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(buffer.data(), static_cast<size_t>(length));
            left_behind_ += lines_.back().ends_with("a thread does not end, leaving it behind") ? 1 : 0;
        }
    }
}

std::vector<std::string> SyslogSink::lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

bool SyslogSink::contains(const std::string &text) const
{
    std::lock_guard lock(mutex_);
    for (const std::string &line : lines_) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void SyslogSink::forget()
{
    std::lock_guard lock(mutex_);
    lines_.clear();
}
