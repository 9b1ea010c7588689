#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace modemsim {

/// The modem's port: a raw pseudo-terminal behind a stable symbolic link. The link is there exactly while the port is.
class PtyPort {
public:
    /// `link` may be empty: then only the terminal's own path leads to the port.
    explicit PtyPort(std::string link) : link_(std::move(link)) {}
    ~PtyPort();
    PtyPort(const PtyPort &) = delete;
    PtyPort &operator=(const PtyPort &) = delete;

    /// Makes a new pseudo-terminal and the link to it. Throws std::system_error.
    void open();
    /// Removes the link and hangs the terminal up: who has it open reads its end.
    void close();

    bool is_open() const;
    int descriptor() const;
    const std::string &path() const;

    /// Queues bytes for the reader. What goes beyond 4 MiB of unread bytes is dropped.
    void write(std::string_view bytes);
    bool wants_to_write() const;
    /// Gives the terminal what it takes now.
    void flush();
    /// What has arrived; empty when nothing has.
    std::string read();
    uint64_t dropped() const;

private:
    std::string link_;
    std::string path_;
    int master_ = -1;
    int slave_ = -1; ///< kept open, so that others may open and close the port freely
    std::string out_;
    size_t out_start_ = 0;
    uint64_t dropped_ = 0;
};

} // namespace modemsim
