// Takes the place of the system log in a private root: a datagram socket whose lines the test can look at.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class SyslogSink {
public:
    // Binds `folder`/log, in place of what is there; folder is the root's dev folder. Throws std::system_error.
    explicit SyslogSink(const std::string &folder);
    ~SyslogSink();
    SyslogSink(const SyslogSink &) = delete;
    SyslogSink &operator=(const SyslogSink &) = delete;

    // The messages so far, in order, as sent: "<priority>date tag: text".
    std::vector<std::string> lines() const;
    bool contains(const std::string &text) const;
    // How many stops so far left a thread of the daemon behind. The sink's end fails the test that runs when there was
    // one.
    int left_behind() const
    {
        return left_behind_.load();
    }
    // Drops the messages so far: a long run need not hold them.
    void forget();
    // Nothing is taken off the socket while the result lives, as when the log's reader hangs.
    [[nodiscard]] std::unique_lock<std::mutex> hold()
    {
        return std::unique_lock(taking_);
    }

private:
    // A sender blocks once a few messages wait, so they are taken off the socket by a thread.
    void collect();

    int socket_ = -1;
    int stop_pipe_[2] = {-1, -1};
    std::mutex taking_;        // held while messages are taken off the socket
    mutable std::mutex mutex_; // protects lines_
    std::vector<std::string> lines_;
    std::atomic<int> left_behind_{0};
    std::thread collector_;
};
