// Commands for the SIM card's codes.
#pragma once

#include "command.h"

int command_pin(const Arguments &arguments);
