// One message on standard output.
#pragma once

#include "message.h"

// Its rows and its text, in JSON an object of its own. `details`: rows for everything; otherwise a line with date and
// sender above the text, and an empty one below.
void print_message(const Message &message, bool details);
