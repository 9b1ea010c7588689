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
// The file is about to be replaced by one that may hold less: it is kept under its name with `suffix` behind it, in
// place of an earlier one. `reason` is printed. False when that fails.
bool keep_message_file(const char *path, const char *suffix, const char *reason);
// Makes the file that is to replace one of the store's, and the folder if there is none; follows no link. A descriptor,
// or -1 with errno.
int create_temporary_file(const char *path);
