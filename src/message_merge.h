// Adding received messages to the store: duplicates are dropped, the parts of long messages joined.
#pragma once

#include "message_array.h"
#include "message_decode.h"

enum class AddResult {
    added,     // the unread flag is to be set
    duplicate, // a whole message that is stored already
    refused,   // nothing was changed
};

// Takes the store's mutex; does not save. The message stays the caller's. Any thread.
AddResult add_message(const DecodedMessage *message);

// The same with the lines that the log gets of every message.
AddResult offer_message(const DecodedMessage *message, bool log_refusal);

// Is the message, or that part of a long one, in the store? Also true when there is no memory to find out. Takes the
// store's mutex. Any thread.
bool message_is_stored(const DecodedMessage *message);

// Puts a copy of a message into an array, or of those of its parts that are not there yet; "read" in either is kept for
// a single-part message. False when it does not fit. The caller holds the mutex of the array.
bool merge_stored(MessageArray *array, const StoredMessage *message);
