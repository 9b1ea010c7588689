// What every command of the tool is: a row of the table in commands.h and a function. Each family of commands has a
// file of its own, <family>_commands.cpp, and a header of the same name that declares its functions.
#pragma once

#include <cstdint>
#include <cstring>

// Exit statuses of the tool. A command that does not end with EXIT_DONE has said why in one line on standard error.
enum ExitCode : int {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,   // the modem or the daemon refused, or gave no usable answer
    EXIT_USAGE = 2,     // arguments that make no sense
    EXIT_NO_DAEMON = 3, // no bus, no daemon on it, or it went away
    EXIT_TIMED_OUT = 4,
};

// What stands in front of or behind the command on the command line, the same for every command.
struct Options {
    const char *socket; // of the bus; null for the usual one
    int timeout_ms;     // of --timeout; 0 when it was not given
    bool json;
};
extern Options options;

// What stands behind the command's name, options of the tool taken out; argv[count] is null.
struct Arguments {
    int count;
    char **values;

    // The argument at this place, or null behind the last.
    const char *at(int place) const
    {
        return place < count ? values[place] : nullptr;
    }
};

// Carries the command out and returns its exit status. The bus is connected on the first call (bus.h); nothing is
// printed to standard output but through output.h, table.h and json.h.
using CommandFunction = int (*)(const Arguments &arguments);

// Tables of the tool hold their texts themselves: a pointer would cost five times its size in a program that may be
// loaded anywhere.
struct Command {
    char name[12];
    int8_t most_arguments; // more are refused before run is called; -1 for any number
    CommandFunction run;
    // Three texts with a zero between them: what stands behind the name, such as "[show | set BANDS]"; one line for the
    // list of commands; paragraphs and examples, in lines of at most 90 characters.
    const char *texts;

    const char *usage() const
    {
        return texts;
    }
    const char *summary() const
    {
        return usage() + strlen(usage()) + 1;
    }
    const char *help() const
    {
        return summary() + strlen(summary()) + 1;
    }
};

// The row of this name, or null. A table ends with a row without a function.
const Command *find_command(const Command *table, const char *name);

// Says "celmux: ..." and how the command is used on standard error; returns EXIT_USAGE. printf format.
[[gnu::format(printf, 2, 3)]] int usage_error(const char *command, const char *format, ...);
// Says "celmux: ..." in one line on standard error, control characters escaped; returns `code`.
[[gnu::format(printf, 2, 3)]] int fail(ExitCode code, const char *format, ...);

// A decimal number of an argument within limits; false, and *value untouched, for anything else.
bool parse_number(const char *text, int32_t lowest, int32_t highest, int32_t *value);
