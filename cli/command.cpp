#include "command.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "output.h"
#include "text.h"

Options options = {nullptr, 0, false};

const Command *find_command(const Command *table, const char *name)
{
    for (const Command *row = table; row->run; row++)
        if (strcmp(row->name, name) == 0)
            return row;
    return nullptr;
}

static void say(const char *message, const char *more)
{
    char line[512];
    escape_text(message, line, sizeof(line));
    output_flush();
    fprintf(stderr, "celmux: %s%s\n", line, more);
}

int fail(ExitCode code, const char *format, ...)
{
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    say(message, "");
    return code;
}

int usage_error(const char *command, const char *format, ...)
{
    char message[512];
    int used = command ? snprintf(message, sizeof(message), "%s: ", command) : 0;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message + used, sizeof(message) - static_cast<size_t>(used), format, arguments);
    va_end(arguments);
    char more[64];
    snprintf(more, sizeof(more), " (see 'celmux help%s%s')", command ? " " : "", command ? command : "");
    say(message, more);
    return EXIT_USAGE;
}

bool parse_number(const char *text, int32_t lowest, int32_t highest, int32_t *value)
{
    size_t length = strlen(text);
    if (length == 0 || length > 10 || strspn(text, "0123456789") != length)
        return false;
    long long number = atoll(text);
    if (number < lowest || number > highest)
        return false;
    *value = static_cast<int32_t>(number);
    return true;
}
