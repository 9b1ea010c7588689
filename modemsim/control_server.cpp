#include "control_server.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace modemsim {

namespace {

constexpr size_t most_clients = 32;
constexpr size_t longest_line = 1024 * 1024;
constexpr size_t longest_answers = 64 * 1024 * 1024;

[[noreturn]] void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        fail(path);
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

} // namespace

std::string control_request(const std::string &path, const std::string &line)
{
    sockaddr_un address = address_of(path);
    int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        fail("socket");
    timeval limit = {10, 0};
    (void)setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string sent = line + "\n";
    std::string answer;
    bool good = connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                send(descriptor, sent.data(), sent.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(sent.size());
    char buffer[4096];
    while (good && answer.find('\n') == answer.npos) {
        ssize_t got = recv(descriptor, buffer, sizeof buffer, 0);
        if (got < 0 && errno == EINTR)
            continue;
        good = got > 0;
        if (got == 0)
            errno = ECONNRESET;
        if (good)
            answer.append(buffer, static_cast<size_t>(got));
    }
    int error = errno;
    close(descriptor);
    errno = error;
    if (!good)
        fail(path);
    return answer.substr(0, answer.find('\n'));
}

ControlServer::ControlServer(std::string path, std::function<std::string(std::string_view)> run)
    : path_(std::move(path)), run_(std::move(run))
{
    sockaddr_un address = address_of(path_);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (void)unlink(path_.c_str());
    if (listener_ < 0 || bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, 16) != 0)
        fail(path_);
}

ControlServer::~ControlServer()
{
    for (const auto &[descriptor, client] : clients_)
        close(descriptor);
    if (listener_ >= 0) {
        close(listener_);
        (void)unlink(path_.c_str());
    }
}

void ControlServer::add_to(std::vector<pollfd> &waiting) const
{
    waiting.push_back({clients_.size() < most_clients ? listener_ : -1, POLLIN, 0});
    for (const auto &[descriptor, client] : clients_)
        waiting.push_back({descriptor, static_cast<short>(client.out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
}

void ControlServer::serve(const std::vector<pollfd> &waiting)
{
    for (const pollfd &one : waiting) {
        if (one.revents == 0)
            continue;
        if (one.fd == listener_) {
            accept_client();
            continue;
        }
        auto found = clients_.find(one.fd);
        if (found == clients_.end() || serve_client(one.fd, found->second, one.revents))
            continue;
        close(one.fd);
        clients_.erase(found);
    }
}

void ControlServer::accept_client()
{
    int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor >= 0)
        clients_[descriptor];
}

bool ControlServer::serve_client(int descriptor, Client &client, short events)
{
    char buffer[4096];
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) {
        ssize_t got = recv(descriptor, buffer, sizeof buffer, 0);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
            return false;
        if (got > 0)
            client.in.append(buffer, static_cast<size_t>(got));
    }
    for (size_t end = client.in.find('\n'); end != client.in.npos; end = client.in.find('\n')) {
        std::string line = client.in.substr(0, end);
        client.in.erase(0, end + 1);
        client.out += run_(line) + "\n";
    }
    if (client.in.size() > longest_line || client.out.size() > longest_answers)
        return false;
    while (!client.out.empty()) {
        ssize_t sent = send(descriptor, client.out.data(), client.out.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return errno == EAGAIN;
        client.out.erase(0, static_cast<size_t>(sent));
    }
    return true;
}

} // namespace modemsim
