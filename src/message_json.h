// The older form of the message store: the JSON text of an array of message objects.
#pragma once

#include "message_array.h"
#include "message_reader.h"

// Replaces the array's messages by those of the text. A text that is not valid JSON or no array gives an empty array;
// an element that is not a message is left out. Each of these is printed and sets *intact to false. Returns false when
// the file could not be read (the array is unchanged) and sets *complete to false when the array could not take all
// messages.
bool read_message_json(MessageReader *reader, MessageArray *array, bool *complete, bool *intact);
