// Help on the terminal.
#pragma once

#include "command.h"

// Prints the list of all commands of the table, or the help of the one of that name when `name` is not null. An exit
// status.
int show_help(const Command *table, const char *name);
