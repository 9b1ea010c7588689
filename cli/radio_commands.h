// Commands that show the radio as it is.
#pragma once

#include "command.h"

int command_signal(const Arguments &arguments);
int command_cells(const Arguments &arguments);
int command_scan(const Arguments &arguments);
