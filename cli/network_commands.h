// Commands that show and choose bands, technologies and the operator.
#pragma once

#include "command.h"

int command_bands(const Arguments &arguments);
int command_mode(const Arguments &arguments);
int command_operator(const Arguments &arguments);
