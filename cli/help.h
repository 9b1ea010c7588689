// Help on the terminal.
#pragma once

#include "command.h"

// `celmux help [COMMAND]`, `celmux --help`.
int command_help(const Arguments &arguments);
// One line: "usage: celmux bands [show | set BANDS]".
void print_usage_line(const Command &command);
