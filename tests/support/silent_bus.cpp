#include "silent_bus.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

SilentBus::SilentBus(const std::string &folder)
{
    std::filesystem::create_directories(folder);
    int folder_fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // The folder's path may be longer than a socket address holds; its descriptor's name never is.
    std::string path = "/proc/self/fd/" + std::to_string(folder_fd) + "/ubus.sock";
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    (void)unlink(path.c_str()); // one that a broker left
    bool bound = bind(socket_, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0 &&
                 listen(socket_, 16) == 0 && pipe2(stop_pipe_, O_CLOEXEC) == 0;
    int error = errno;
    (void)close(folder_fd);
    if (!bound) {
        throw std::system_error(error, std::generic_category(), "silent bus");
    }
    acceptor_ = std::thread([this] { accept_all(); });
}

SilentBus::~SilentBus()
{
    (void)close(stop_pipe_[1]);
    acceptor_.join();
    (void)close(stop_pipe_[0]);
    (void)close(socket_);
}

void SilentBus::accept_all()
{
    std::vector<int> accepted;
    struct pollfd watched[2] = {{socket_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    while (watched[1].revents == 0) {
        if (poll(watched, 2, -1) > 0 && watched[0].revents != 0) {
            int fd = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                accepted.push_back(fd);
                count_++;
            }
        }
    }
    for (int fd : accepted) {
        (void)close(fd);
    }
}
