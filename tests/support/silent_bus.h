// Takes the place of the broker: accepts every connection and never says a word.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

class SilentBus {
public:
    // Binds `folder`/ubus.sock, in place of what is there. Throws std::system_error.
    explicit SilentBus(const std::string &folder);
    ~SilentBus();
    SilentBus(const SilentBus &) = delete;
    SilentBus &operator=(const SilentBus &) = delete;

    int connections() const
    {
        return count_.load();
    }

private:
    void accept_all();

    int socket_ = -1;
    int stop_pipe_[2] = {-1, -1};
    std::atomic<int> count_{0};
    std::thread acceptor_;
};
