// One child process of a test. Errors of the test's own machinery throw std::system_error.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "wait_for.h"

struct ExitStatus {
    int code;   // as exit() got it, or -1 when a signal ended the process
    int signal; // that signal, or 0
    std::chrono::steady_clock::time_point ended;
};

struct ProcessOptions {
    std::string output_path;      // file that takes standard output, truncated first; empty: /dev/null
    std::string error_path;       // the same for standard error
    std::string working_folder;   // empty: the test's own
    std::vector<std::string> env; // NAME=value, added to the test's own
    int inherited_fd = -1;        // a descriptor that stays open in the process
    int blocked_signal = 0;       // a signal that begins blocked, so that one sent early waits for the program
};

// Moves with its process; the last owner kills and reaps what still runs. The process also dies with the thread that
// started it.
class Process {
public:
    // Starts argv[0], a path, with default signals and /dev/null as standard input.
    static Process start(const std::vector<std::string> &argv, const ProcessOptions &options);

    Process() = default;
    ~Process();
    Process(Process &&other) noexcept;
    Process &operator=(Process &&other) noexcept;

    pid_t pid() const
    {
        return pid_;
    }
    bool running();

    void signal(int number);

    // The exit status, waiting for the end up to `limit`; nullopt when the process still runs then. May be asked again.
    std::optional<ExitStatus> wait_exit(std::chrono::milliseconds limit = patience);

    // SIGTERM, and SIGKILL when that does not end it within `limit`. Returns how it ended.
    ExitStatus stop(std::chrono::milliseconds limit = patience);

    // What it has written so far.
    std::string output() const;
    std::string errors() const;
    // Complete lines of output().
    std::vector<std::string> output_lines() const;

    bool wait_for_output(const std::string &text, std::chrono::milliseconds limit = patience) const;

private:
    void end();

    pid_t pid_ = -1;
    int pid_fd_ = -1;
    ProcessOptions options_;
    std::optional<ExitStatus> status_;
};

// The whole file, or "" when it cannot be read.
std::string read_whole_file(const std::string &path);

std::vector<std::string> split_lines(const std::string &text);
