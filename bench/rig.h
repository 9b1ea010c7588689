// The daemon with bus and simulated modem in a private root, as the measurements need it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "daemon.h"

class Rig {
public:
    // Returns when the daemon answers queries, that is when the scan of its start has ended. `burst_gap_ms` is that of
    // its configuration.
    explicit Rig(int latency_ms, int burst_gap_ms = 1);

    // For measurements over the bare port and of the daemon's start.
    void stop_daemon();
    void start_daemon(); // returns as the constructor does
    void wait_until_answering();

    std::string socket() const;
    std::string port() const;
    std::string record_path() const;
    std::string messages_folder() const;
    pid_t pid()
    {
        return daemon_->celmuxd().pid();
    }
    PrivateRoot &root()
    {
        return root_;
    }
    Modem &modem()
    {
        return daemon_->modem();
    }

    // What the modem got since the record had that size, in order, without line ends.
    std::vector<std::string> commands_since(size_t record_size) const;
    size_t record_size() const;

    // How many messages the modem has deleted so far, at the daemon's command.
    int deleted_messages();

    // What the daemon said so far: a long run need not hold it.
    void forget_logs();

private:
    PrivateRoot root_;
    std::unique_ptr<Daemon> daemon_;
};
