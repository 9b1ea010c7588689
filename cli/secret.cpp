#include "secret.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <termios.h>
#include <unistd.h>

#include "command.h"
#include "output.h"

static termios usual_terminal; // what the handler restores; set before it is installed

static void restore_and_end(int number)
{
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &usual_terminal); // the process ends whatever comes of it
    (void)signal(number, SIG_DFL);
    (void)raise(number);
}

static void set_signals(void (*handler)(int))
{
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        (void)signal(number, handler); // these can be caught
}

Secret::~Secret()
{
    explicit_bzero(text, sizeof(text));
}

// The terminal without echo, until the end of the object. Nothing happens when standard input is no terminal.
struct SilentTerminal {
    bool silent = false;

    SilentTerminal()
    {
        if (tcgetattr(STDIN_FILENO, &usual_terminal) != 0)
            return;
        silent = true;
        set_signals(restore_and_end);
        termios quiet = usual_terminal;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ICANON | ISIG;
        (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    ~SilentTerminal()
    {
        if (!silent)
            return;
        (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &usual_terminal);
        set_signals(SIG_DFL);
        fputc('\n', stderr);
    }
    SilentTerminal(const SilentTerminal &) = delete;
    SilentTerminal &operator=(const SilentTerminal &) = delete;
};

// Byte by byte: what stands behind the line is for the next one. False for nothing or too much.
static bool take_line(Secret &secret)
{
    size_t used = 0;
    char byte = '\0';
    for (;;) {
        ssize_t count = read(STDIN_FILENO, &byte, 1);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0 || byte == '\n')
            break;
        if (used < SECRET_SIZE)
            secret.text[used] = byte;
        used += used < SECRET_SIZE;
    }
    if (used > 0 && used < SECRET_SIZE && secret.text[used - 1] == '\r')
        used--;
    bool good = used > 0 && used < SECRET_SIZE && !memchr(secret.text, '\0', used);
    secret.text[good ? used : 0] = '\0';
    return good;
}

int read_secret(const char *command, const char *prompt, Secret &secret)
{
    output_flush();
    SilentTerminal terminal;
    if (terminal.silent)
        fprintf(stderr, "%s: ", prompt);
    return take_line(secret) ? int{EXIT_DONE} : usage_error(command, "nothing usable was entered");
}

int read_new_secret(const char *command, const char *prompt, const char *again, Secret &secret)
{
    int code = read_secret(command, prompt, secret);
    if (code != EXIT_DONE || !isatty(STDIN_FILENO))
        return code;
    Secret second;
    code = read_secret(command, again, second);
    if (code == EXIT_DONE && strcmp(secret.text, second.text) != 0)
        return usage_error(command, "these two are not the same");
    return code;
}
