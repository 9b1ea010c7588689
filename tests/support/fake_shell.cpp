#include "fake_shell.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "shell.h"

FakeShell fake_shell;

void FakeShell::reset()
{
    *this = FakeShell();
}

int run_shell(const char *command)
{
    fake_shell.commands.push_back(command);
    return fake_shell.status ? fake_shell.status(command) : 0;
}

int run_shell_format(const char *format, ...)
{
    char command[4096];
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(command, sizeof command, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    return run_shell(command);
}

int run_command_output(const char *command, char output[COMMAND_OUTPUT_SIZE])
{
    int status = run_shell(command);
    std::string text = fake_shell.output ? fake_shell.output(command) : "";
    snprintf(output, COMMAND_OUTPUT_SIZE, "%s", text.c_str());
    return status;
}
