// Another body for src/shell.cpp: nothing runs, a test reads what would have run and says how it ends.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct FakeShell {
    std::vector<std::string> commands;                     // of run_shell, run_shell_format and run_command_output
    std::function<int(const std::string &command)> status; // default: 0
    std::function<std::string(const std::string &command)> output; // standard output; default: none

    void reset();
};

extern FakeShell fake_shell;
