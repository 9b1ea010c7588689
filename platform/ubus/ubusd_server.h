// The broker's sockets: one thread, one epoll, nothing ever waits for a client.
#pragma once

#include "ubusd_broker.h"

#include <memory>
#include <unordered_map>

// A client is dropped when more than this waits for it to read.
constexpr size_t client_queue_max = 4 * UBUS_MAX_MSGLEN;
constexpr size_t clients_max = 512;

class connection;

class bus_server {
public:
    bus_server();
    ~bus_server();
    bus_server(const bus_server &) = delete;
    bus_server &operator=(const bus_server &) = delete;

    // Listens at the path, in place of a socket left behind; makes its folder. Empty, or what went wrong.
    std::string listen_at(const std::string &path);

    // Serves until SIGINT or SIGTERM, which the caller has blocked. False when it cannot go on.
    bool run();

private:
    friend class connection;

    bool watch(int fd, uint32_t events, connection *client);
    void accept_clients();
    void accept_one(int fd);
    void drop_doomed();

    broker bus;
    std::unordered_map<connection *, std::unique_ptr<connection>> connections;
    std::vector<connection *> doomed;
    std::string socket_path;
    uint64_t socket_device = 0;
    uint64_t socket_inode = 0;
    int listen_fd = -1;
    int epoll_fd = -1;
    int signal_fd = -1;
    int spare_fd = -1; // given up for a moment to refuse a client when no descriptor is left
};
