// Commands that read and send messages.
#pragma once

#include "command.h"

int command_sms(const Arguments &arguments);
// Prints messages as they arrive, until Ctrl-C.
int watch_messages(const Arguments &arguments);
