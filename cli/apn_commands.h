// Commands for the stored APN profiles.
#pragma once

#include "command.h"

int command_apn(const Arguments &arguments);
