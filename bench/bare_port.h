// The simulated modem's port without a daemon: the least that an exchange costs.
#pragma once

#include <string>
#include <string_view>

class BarePort {
public:
    // Opens the port raw and drops what waits in it. Throws std::system_error.
    explicit BarePort(const std::string &path);
    ~BarePort();
    BarePort(const BarePort &) = delete;
    BarePort &operator=(const BarePort &) = delete;

    // Writes the command and a carriage return and reads up to the final result. Returns all that came; throws
    // std::runtime_error after 10 s.
    std::string exchange(const std::string &command);

    // Reads until `text` and a line end behind it have come. Returns all that came; throws as above.
    std::string read_until(std::string_view text);

private:
    void read_more(std::string *text);

    int fd_ = -1;
};
