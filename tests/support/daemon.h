// The daemon in a private root with everything that it needs: broker, simulated modem, connection manager.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bus.h"
#include "modem.h"
#include "private_root.h"

struct DaemonOptions {
    ModemOptions modem;
    bool with_modem = true;
    bool wait_until_ready = true; // until the object is on the bus
    std::vector<std::string> env; // for the daemon only
};

class Daemon {
public:
    // Starts ubusd, wanmd_standin, modemsim and celmuxd, in this order. Throws std::runtime_error, with the end of what
    // the daemon and the system log said, when the object does not come.
    explicit Daemon(PrivateRoot &root, const DaemonOptions &options = {});

    Bus bus;

    Process &celmuxd()
    {
        return celmuxd_;
    }
    Process &broker()
    {
        return broker_;
    }
    // Only with DaemonOptions::with_modem.
    Modem &modem()
    {
        return modem_.value();
    }
    // The datagrams so far, one a line, as the connection manager got them.
    std::vector<std::string> datagrams() const
    {
        return wanmd_.output_lines();
    }

    BusAnswer call(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object())
    {
        return bus.call(method, arguments);
    }

    // Waits until the daemon asks nothing of its own accord any more: its first network scan has ended, and it has looked for messages.
    bool wait_until_calm();

    // SIGTERM to celmuxd; the others stay, so that it can be started again.
    ExitStatus stop();
    void start_again();
    void stop_broker();
    void start_broker();

private:
    void start_celmuxd();
    std::string troubles() const;

    PrivateRoot &root_;
    DaemonOptions options_;
    Process broker_;
    Process wanmd_;
    std::optional<Modem> modem_;
    Process celmuxd_;
};
