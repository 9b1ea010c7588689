#include "pty_port.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace modemsim {

namespace {

constexpr size_t out_limit = 4 * 1024 * 1024;

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void set_raw(int terminal)
{
    termios settings{};
    if (tcgetattr(terminal, &settings) != 0)
        fail("tcgetattr");
    cfmakeraw(&settings);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    if (tcsetattr(terminal, TCSANOW, &settings) != 0)
        fail("tcsetattr");
}

} // namespace

PtyPort::~PtyPort()
{
    close();
}

void PtyPort::open()
{
    close();
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        fail("posix_openpt");
    char name[128];
    if (ptsname_r(master_, name, sizeof name) != 0)
        fail("ptsname");
    path_ = name;
    slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0)
        fail(name);
    set_raw(slave_);
    if (link_.empty())
        return;
    // The link appears whole and replaces one that an earlier run has left.
    std::string fresh = link_ + ".new";
    (void)::unlink(fresh.c_str());
    if (::symlink(name, fresh.c_str()) != 0 || ::rename(fresh.c_str(), link_.c_str()) != 0)
        fail(link_.c_str());
}

void PtyPort::close()
{
    if (master_ < 0)
        return;
    std::error_code ignored;
    if (!link_.empty() && std::filesystem::read_symlink(link_, ignored) == path_)
        (void)::unlink(link_.c_str());
    if (slave_ >= 0)
        ::close(slave_);
    ::close(master_);
    master_ = slave_ = -1;
    out_.clear();
    out_start_ = 0;
}

bool PtyPort::is_open() const
{
    return master_ >= 0;
}

int PtyPort::descriptor() const
{
    return master_;
}

const std::string &PtyPort::path() const
{
    return path_;
}

void PtyPort::write(std::string_view bytes)
{
    if (master_ < 0)
        return;
    size_t room = out_limit - (out_.size() - out_start_);
    if (bytes.size() > room) {
        dropped_ += bytes.size() - room;
        bytes = bytes.substr(0, room);
    }
    out_ += bytes;
    flush();
}

bool PtyPort::wants_to_write() const
{
    return master_ >= 0 && out_start_ < out_.size();
}

void PtyPort::flush()
{
    while (wants_to_write()) {
        ssize_t written = ::write(master_, out_.data() + out_start_, out_.size() - out_start_);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            break;
        out_start_ += static_cast<size_t>(written);
    }
    if (out_start_ == out_.size() || out_start_ > out_limit / 4) {
        out_.erase(0, out_start_);
        out_start_ = 0;
    }
}

std::string PtyPort::read()
{
    char buffer[4096];
    ssize_t got = master_ < 0 ? -1 : ::read(master_, buffer, sizeof buffer);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
}

uint64_t PtyPort::dropped() const
{
    return dropped_;
}

} // namespace modemsim
