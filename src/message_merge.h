// Adding received messages to the store: duplicates are dropped, the parts of long messages joined.
#pragma once

#include "message_decode.h"

enum class AddResult {
    added,     // the unread flag is to be set
    duplicate, // a whole message that is stored already
    refused,   // nothing was changed
};

// Takes the store's mutex; does not save. The message stays the caller's. The thread resp_processor only.
AddResult add_message(const DecodedMessage *message);

// Tells the router that there are unread messages, through UCI. Runs a program: not under the mutex.
void set_message_unread();
