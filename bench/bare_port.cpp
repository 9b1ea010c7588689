#include "bare_port.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <system_error>
#include <termios.h>
#include <unistd.h>

BarePort::BarePort(const std::string &path) : fd_(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    termios line = {};
    if (fd_ < 0 || tcgetattr(fd_, &line) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    cfmakeraw(&line);
    line.c_cc[VMIN] = 1;
    line.c_cc[VTIME] = 0;
    (void)tcsetattr(fd_, TCSANOW, &line);
    (void)tcflush(fd_, TCIOFLUSH);
}

BarePort::~BarePort()
{
    (void)close(fd_);
}

void BarePort::read_more(std::string *text)
{
    constexpr int limit_ms = 10000;
    char buffer[4096];
    pollfd readable = {fd_, POLLIN, 0};
    ssize_t length = poll(&readable, 1, limit_ms) == 1 ? read(fd_, buffer, sizeof buffer) : 0;
    if (length <= 0)
        throw std::runtime_error("the simulated modem does not answer; so far: " + *text);
    text->append(buffer, static_cast<size_t>(length));
}

static bool ends_with_final_result(const std::string &text)
{
    if (text.ends_with("\r\nOK\r\n"))
        return true;
    size_t error = text.rfind("ERROR");
    return error != std::string::npos && text.find("\r\n", error) != std::string::npos;
}

std::string BarePort::exchange(const std::string &command)
{
    std::string line = command + "\r";
    if (write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("the simulated modem's port takes nothing");
    std::string answer;
    while (!ends_with_final_result(answer))
        read_more(&answer);
    return answer;
}

std::string BarePort::read_until(std::string_view wanted)
{
    std::string text;
    for (;;) {
        size_t found = text.find(wanted);
        if (found != std::string::npos && text.find("\r\n", found) != std::string::npos)
            return text;
        read_more(&text);
    }
}
