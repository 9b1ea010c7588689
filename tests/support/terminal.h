// A program of a private root on a terminal of its own: what a person would type and see.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "private_root.h"

class Terminal {
public:
    // Starts argv in the root on a pseudo-terminal of that size; the terminal is the program's controlling one, so that
    // "\x03" typed is Ctrl-C. Throws std::system_error.
    Terminal(PrivateRoot &root, const std::vector<std::string> &argv, unsigned short columns = 80,
             unsigned short lines = 24);
    // Kills what still runs.
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void type(const std::string &text);

    // Reads until the output holds the text, from `from` on; false when it does not come in time.
    bool wait_for(const std::string &text, size_t from = 0, std::chrono::milliseconds limit = patience);
    // Reads to the end of the program. Its exit status, 128 + signal, or nullopt when it still runs then.
    std::optional<int> wait_exit(std::chrono::milliseconds limit = patience);

    // Whether the terminal shows what is typed.
    bool echoes() const;

    // All bytes that came so far.
    const std::string &output() const
    {
        return output_;
    }

private:
    bool read_some(std::chrono::steady_clock::time_point deadline);

    int fd_ = -1;
    pid_t pid_ = -1;
    std::optional<int> status_;
    std::string output_;
};
