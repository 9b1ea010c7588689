// Messages that cannot be read are not thrown away: what the modem shows of them is kept in a text file, for whoever
// wants to know what was in them (docs/message-file.md).
#pragma once

#include "message_answer.h"

constexpr const char *UNREADABLE_FILE = "/data/in_messages.unreadable";

// Adds a line with place, status, length and text; the oldest lines go when the file would be larger than 64 KiB. On
// the disk when it returns 0; -1 when it could not be written. The requester only.
int keep_unreadable(const MessageEntry &entry);
