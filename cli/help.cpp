#include "help.h"

#include "output.h"

void print_usage_line(const Command &command)
{
    print_line("usage: celmux %s%s%s", command.name, *command.usage() ? " " : "", command.usage());
}

static int print_overview()
{
    print_line("usage: celmux [--json] [--socket PATH] [--timeout SECONDS] [COMMAND [ARGUMENTS]]");
    print_line("%s", "");
    for (const Command *row = commands; row->run; row++)
        print_row(row->name, "%s", row->summary());
    print_line("%s", "");
    print_line("Without a command: status. 'celmux help COMMAND' tells more.");
    return EXIT_DONE;
}

int command_help(const Arguments &arguments)
{
    if (arguments.count == 0)
        return print_overview();
    const Command *command = find_command(arguments.at(0));
    if (!command)
        return usage_error(nullptr, "there is no command %s", arguments.at(0));
    print_usage_line(*command);
    print_line("%s", "");
    print_text(command->help());
    if (!*command->help())
        print_line("%s", command->summary());
    return EXIT_DONE;
}
