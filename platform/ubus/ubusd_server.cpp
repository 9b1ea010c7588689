#include "ubusd_server.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t read_size = 65536;
constexpr int accepts_per_event = 64;
constexpr size_t compact_size = 262144;

std::string user_name(uid_t uid)
{
    passwd entry;
    passwd *found = nullptr;
    std::array<char, 4096> space;
    bool known = getpwuid_r(uid, &entry, space.data(), space.size(), &found) == 0 && found;
    return known ? entry.pw_name : std::to_string(uid);
}

std::string group_name(gid_t gid)
{
    group entry;
    group *found = nullptr;
    std::array<char, 16384> space;
    bool known = getgrgid_r(gid, &entry, space.data(), space.size(), &found) == 0 && found;
    return known ? entry.gr_name : std::to_string(gid);
}

std::string failure(const std::string &what)
{
    return what + ": " + strerror(errno);
}

} // namespace

class connection final : public message_sink {
public:
    connection(bus_server &owner, int socket) : server(owner), fd(socket) {}
    ~connection() override
    {
        close(fd);
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    void join(std::string user, std::string group)
    {
        client = &server.bus.add_client(*this, std::move(user), std::move(group));
    }

    void leave()
    {
        if (client)
            server.bus.remove_client(*client);
        client = nullptr;
    }

    void send(const std::vector<uint8_t> &message) override
    {
        if (dropped)
            return;
        size_t sent = 0;
        if (queued() == 0) {
            ssize_t count = ::send(fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0 && errno != EAGAIN && errno != EINTR)
                return drop();
            sent = count < 0 ? 0 : static_cast<size_t>(count);
            if (sent == message.size())
                return;
        }
        if (queued() + message.size() - sent > client_queue_max)
            return drop();
        out.insert(out.end(), message.begin() + static_cast<std::ptrdiff_t>(sent), message.end());
        watch_output(true);
    }

    size_t queued() const override
    {
        return out.size() - out_sent;
    }

    void on_event(uint32_t events)
    {
        if (dropped)
            return;
        if (events & EPOLLOUT)
            flush();
        if (events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP))
            receive();
    }

private:
    void receive()
    {
        static std::array<uint8_t, read_size> space;
        ssize_t got = recv(fd, space.data(), space.size(), MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (got <= 0)
            return drop();
        std::span<const uint8_t> input(space.data(), static_cast<size_t>(got));
        bus_message message;
        while (!dropped) {
            switch (reader.take(input, message)) {
            case message_reader::outcome::incomplete:
                return;
            case message_reader::outcome::malformed:
                return drop();
            case message_reader::outcome::complete:
                server.bus.receive(*client, message);
            }
        }
    }

    void flush()
    {
        while (queued() > 0) {
            ssize_t count = ::send(fd, out.data() + out_sent, queued(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0 && (errno == EAGAIN || errno == EINTR))
                break;
            if (count < 0)
                return drop();
            out_sent += static_cast<size_t>(count);
        }
        if (queued() == 0) {
            out = {};
            out_sent = 0;
            watch_output(false);
        } else if (out_sent > compact_size) {
            out.erase(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(out_sent));
            out_sent = 0;
        }
    }

    void watch_output(bool on)
    {
        if (on == output_watched)
            return;
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLRDHUP | (on ? EPOLLOUT : 0u);
        event.data.ptr = this;
        if (epoll_ctl(server.epoll_fd, EPOLL_CTL_MOD, fd, &event) == 0)
            output_watched = on;
        else
            drop();
    }

    // The broker may be in the middle of this client's message: it is taken off the bus when that is done.
    void drop()
    {
        if (dropped)
            return;
        dropped = true;
        out = {};
        out_sent = 0;
        server.doomed.push_back(this);
    }

    bus_server &server;
    int fd;
    bus_client *client = nullptr;
    message_reader reader;
    std::vector<uint8_t> out;
    size_t out_sent = 0;
    bool output_watched = false;
    bool dropped = false;
};

bus_server::bus_server() = default;

bus_server::~bus_server()
{
    // The clients' farewells would only be sent to each other.
    connections.clear();
    struct stat entry;
    bool ours = listen_fd >= 0 && stat(socket_path.c_str(), &entry) == 0 && entry.st_dev == socket_device &&
                entry.st_ino == socket_inode;
    if (ours)
        unlink(socket_path.c_str());
    for (int fd : {listen_fd, epoll_fd, signal_fd, spare_fd}) {
        if (fd >= 0)
            close(fd);
    }
}

std::string bus_server::listen_at(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return "bad socket path: " + path;
    memcpy(address.sun_path, path.c_str(), path.size());
    const auto *name = reinterpret_cast<const sockaddr *>(&address);

    std::error_code error;
    if (auto folder = std::filesystem::path(path).parent_path(); !folder.empty())
        std::filesystem::create_directories(folder, error);
    if (error)
        return "cannot make the folder of " + path + ": " + error.message();

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return failure("socket");
    struct stat entry;
    if (lstat(path.c_str(), &entry) == 0 && S_ISSOCK(entry.st_mode)) {
        bool served = connect(fd, name, sizeof address) == 0 || errno == EAGAIN;
        close(fd);
        if (served)
            return "another broker serves " + path;
        unlink(path.c_str());
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    }
    // Without access lists only the broker's own user may call.
    const mode_t before = umask(0177);
    const bool bound = fd >= 0 && bind(fd, name, sizeof address) == 0;
    umask(before);
    if (!bound || listen(fd, SOMAXCONN) < 0 || stat(path.c_str(), &entry) < 0) {
        std::string why = failure(path);
        close(fd);
        return why;
    }
    listen_fd = fd;
    socket_path = path;
    socket_device = entry.st_dev;
    socket_inode = entry.st_ino;
    return {};
}

bool bus_server::watch(int fd, uint32_t events, connection *client)
{
    epoll_event event = {};
    event.events = events;
    if (client)
        event.data.ptr = client;
    else
        event.data.ptr = fd == listen_fd ? static_cast<void *>(&listen_fd) : static_cast<void *>(&signal_fd);
    return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

void bus_server::accept_clients()
{
    for (int i = 0; i < accepts_per_event; i++) {
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            accept_one(fd);
            continue;
        }
        if ((errno == EMFILE || errno == ENFILE) && spare_fd >= 0) {
            // Left in the queue it would wake the loop for ever.
            close(spare_fd);
            fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                close(fd);
            spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            continue;
        }
        return;
    }
}

void bus_server::accept_one(int fd)
{
    if (connections.size() >= clients_max) {
        close(fd);
        return;
    }
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0) {
        close(fd);
        return;
    }
    auto added = std::make_unique<connection>(*this, fd);
    connection *client = added.get();
    if (!watch(fd, EPOLLIN | EPOLLRDHUP, client))
        return;
    connections.emplace(client, std::move(added));
    client->join(user_name(peer.uid), group_name(peer.gid));
}

// Taking one off may fill another's queue: goes on until nobody is left to drop.
void bus_server::drop_doomed()
{
    while (!doomed.empty()) {
        connection *client = doomed.back();
        doomed.pop_back();
        client->leave();
        connections.erase(client);
    }
}

bool bus_server::run()
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    signal_fd = signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
    epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (signal_fd < 0 || epoll_fd < 0 || !watch(signal_fd, EPOLLIN, nullptr) || !watch(listen_fd, EPOLLIN, nullptr))
        return false;
    for (;;) {
        std::array<epoll_event, 64> events;
        int count = epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), -1);
        if (count < 0 && errno != EINTR)
            return false;
        for (int i = 0; i < count; i++) {
            void *source = events[static_cast<size_t>(i)].data.ptr;
            if (source == &signal_fd)
                return true;
            if (source == &listen_fd)
                accept_clients();
            else
                static_cast<connection *>(source)->on_event(events[static_cast<size_t>(i)].events);
        }
        drop_doomed();
    }
}
