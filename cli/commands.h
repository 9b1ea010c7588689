// The table of all commands; above the commands themselves.
#pragma once

#include "command.h"

// In the order of the help; ends with a row without a function.
extern const Command commands[];
