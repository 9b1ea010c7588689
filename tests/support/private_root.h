// A fresh private root under the build folder, filled with the files of tests/data/root. It goes, with all that runs in
// it, when the object ends; with CELMUX_KEEP_ROOTS in the environment its files stay for a look.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "process.h"
#include "syslog_sink.h"

struct ShellResult {
    int status; // the shell's exit status, or 128 + the signal that ended it; -1 when it took too long
    std::string output;
    std::string errors;
};

class PrivateRoot {
public:
    PrivateRoot();
    ~PrivateRoot();
    PrivateRoot(const PrivateRoot &) = delete;
    PrivateRoot &operator=(const PrivateRoot &) = delete;

    // Starts argv in the root (found by the root's PATH) and returns once it has begun: its pid, its signals and its
    // exit status are the process's own. 127 and 126 are the exit statuses of a command that is missing or cannot be
    // run. `blocked_signal` begins blocked, see ProcessOptions.
    Process start(const std::vector<std::string> &argv, const std::vector<std::string> &env = {},
                  int blocked_signal = 0);

    // Runs a command line with the root's /bin/sh and waits for it up to `limit`.
    ShellResult shell(const std::string &command, std::chrono::milliseconds limit = patience);

    // A program of the build on the host's side, with the root as its working folder, and waits for it. Quicker than
    // shell().
    ShellResult host_program(const std::string &name, const std::vector<std::string> &arguments,
                             std::chrono::milliseconds limit = patience);

    // Where "/etc/x" or "etc/x" of the root is on the host.
    std::string path(const std::string &in_root) const;
    std::string read_file(const std::string &in_root) const; // "" when it cannot be read
    // Creates folders on the way; replaces the file.
    void write_file(const std::string &in_root, const std::string &text) const;
    bool exists(const std::string &in_root) const; // does not follow a link
    void remove(const std::string &in_root) const;

    // Numbers of the processes that have this root, started by whomever.
    std::vector<pid_t> processes() const;

    SyslogSink &syslog()
    {
        return *syslog_;
    }

private:
    ProcessOptions options_for(const std::string &name);
    static ShellResult result_of(Process &process, std::chrono::milliseconds limit);
    void kill_all() const;

    std::string folder_;
    std::string root_;
    int started_ = 0;
    std::unique_ptr<SyslogSink> syslog_;
};
