#pragma once

#include "command.h"

// Everything that matters on one screen.
int command_status(const Arguments &arguments);
