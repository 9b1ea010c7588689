#pragma once

#include <functional>
#include <map>
#include <poll.h>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

/// Sends one line to the control socket at `path` and returns the line that answers. Throws std::system_error when
/// nobody is there or the answer does not come within ten seconds.
std::string control_request(const std::string &path, const std::string &line);

/// The control socket: any number of clients (up to 32), one command a line, one line back for each.
class ControlServer {
public:
    /// Listens at `path`; replaces what an earlier run has left there. Throws std::system_error.
    ControlServer(std::string path, std::function<std::string(std::string_view line)> run);
    ~ControlServer();
    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    /// Adds what it waits for to the caller's poll set.
    void add_to(std::vector<pollfd> &waiting) const;
    /// Serves the descriptors of its own in `waiting` that are ready.
    void serve(const std::vector<pollfd> &waiting);

private:
    struct Client {
        std::string in;
        std::string out;
    };

    void accept_client();
    /// False when the client is to be dropped.
    bool serve_client(int descriptor, Client &client, short events);

    std::string path_;
    std::function<std::string(std::string_view)> run_;
    int listener_ = -1;
    std::map<int, Client> clients_;
};

} // namespace modemsim
