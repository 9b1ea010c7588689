// Commands for the data connection, and those that reach through to the modem or the bus as they are.
#pragma once

#include "command.h"

int command_connect(const Arguments &arguments);
int command_disconnect(const Arguments &arguments);
int command_autoconnect(const Arguments &arguments);
int command_at(const Arguments &arguments);
int command_call(const Arguments &arguments);
