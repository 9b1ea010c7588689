// Codes and passwords: typed at a prompt that shows nothing, or a line of standard input; never from the arguments,
// which everybody on the router sees.
#pragma once

#include <cstddef>

constexpr size_t SECRET_SIZE = 128;

// Wiped at its end.
struct Secret {
    char text[SECRET_SIZE] = "";

    Secret() = default;
    ~Secret();
    Secret(const Secret &) = delete;
    Secret &operator=(const Secret &) = delete;
};

// Takes one line; `prompt` is shown on a terminal only. Returns EXIT_DONE, or the exit status after saying that there
// is nothing or too much; `command` is for that.
int read_secret(const char *command, const char *prompt, Secret &secret);

// Takes a new secret: on a terminal twice, the same both times.
int read_new_secret(const char *command, const char *prompt, const char *again, Secret &secret);
