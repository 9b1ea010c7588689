// The daemon's only way to run other programs: the router's shell, with default signals and no descriptors of ours.
#pragma once

#include <cstddef>

constexpr size_t COMMAND_OUTPUT_SIZE = 33;

// From here on only this unit waits for the process's children, so that no exit status is lost: the event loop would
// wait for all of them, and with SIGCHLD ignored, as a parent may leave it, the kernel would. Called once, before any
// command and before the event loop is set up.
void claim_children();

// Runs `command` with /bin/sh -c and waits for it (not for what it puts into the background). Returns its exit status 0
// to 255, or -1 when it could not be run, was ended by a signal, or was left behind because the daemon stops or 30 s
// passed. Any thread; never blocks signals of the process and never outlives `running` by more than a second.
int run_shell(const char *command);

// The same with a formatted command of at most 4 KiB (-1 when longer). Only texts of our own or checked ones go in.
int run_shell_format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Keeps the first 32 bytes of the command's standard output, zero-terminated, without a line end as last kept byte.
// Exit status or -1 as run_shell.
int run_command_output(const char *command, char output[COMMAND_OUTPUT_SIZE]);
