// The message file: its record format (docs/message-file.md), reading and writing. The caller holds the array's mutex.
#pragma once

#include "message_array.h"

constexpr uint8_t MESSAGE_FILE_MAGIC[4] = {0xAB, 0xCD, 0xEF, 0x00};

// As load_messages.
int read_message_file(const char *path, MessageArray *array);
// As save_messages.
int write_message_file(const char *path, MessageArray *array);
// Is there a file that the array has neither been read from nor written to?
bool message_file_appeared(const char *path, const MessageArray *array);
