#include "help.h"

#include "output.h"

static void print_usage_line(const Command &command)
{
    print_line("usage: celmux %s%s%s", command.name, *command.usage() ? " " : "", command.usage());
}

static int print_overview(const Command *table)
{
    print_line("usage: celmux [--json] [--socket PATH] [--timeout SECONDS] [COMMAND [ARGUMENTS]]");
    print_line("%s", "");
    for (const Command *row = table; row->run; row++)
        print_row(row->name, "%s", row->summary());
    print_line("%s", "");
    print_line("Without a command: status. 'celmux help COMMAND' tells more.");
    return EXIT_DONE;
}

int show_help(const Command *table, const char *name)
{
    if (!name)
        return print_overview(table);
    const Command *command = find_command(table, name);
    if (!command)
        return usage_error(nullptr, "there is no command %s", name);
    print_usage_line(*command);
    print_line("%s", "");
    print_text(command->help());
    if (!*command->help())
        print_line("%s", command->summary());
    return EXIT_DONE;
}
