// The store of received messages: an array in memory that is mirrored in a file. The requester, and now and then the
// response processor, add messages, the bus thread lists, marks and deletes them; all under message_array_mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "message_array.h"

struct blob_buf;

constexpr const char *MESSAGE_FILE = "/data/in_messages";
constexpr const char *LEGACY_MESSAGE_FILE = "/data/messages.json";

// Loads and saves once at start, by main: the message file, then the older JSON file, which is moved into it and
// removed.
void start_message_store();
// Saves and frees the store, by the bus thread when its loop has ended. Messages that arrive later are refused.
void save_and_free_messages();
// Saves, unless another thread holds the store: for an exit that leaves threads behind.
void save_messages_for_exit();

// The functions below take the mutex themselves.

// Reads a file into the array: 1 when it held JSON text (the array is replaced), 0 when it held records (they are
// appended), was empty or is missing, -1 when it could not be read.
int load_messages(const char *path);
// Makes the file hold the array: new messages are appended, any other change replaces the file as a whole. A file that
// the store has neither read nor written is taken up first (its messages, then ours). Synced when it returns. 0, or -1
// after a printed line (one for several failures in a row); then the file still holds what it held, and the next save
// writes everything. Any thread.
int save_messages(const char *path);
// Tries again what went wrong: reads the file when it could not be read yet or has appeared since, saves when the last
// save failed. 0 when the file holds everything, else -1. Any thread.
int retry_messages(const char *path);

// True when the last save succeeded. Any thread, no lock.
bool messages_on_disk();

// Marks the messages at these 1-based indexes as read, then saves once if that changed any. 0, or -1 when any does not
// exist (the others are still marked).
int mark_messages_read(const int32_t *indexes, uint32_t count);
// Deletes at each 1-based index in turn, those that do not exist passed over, then saves.
void delete_messages(const int32_t *indexes, uint32_t count);
void delete_all_messages();

// Adds the array "messages" to a reply that is empty so far. When it would be larger than a bus message, the newest
// messages that fit are listed, "truncated" (true) is added, and one log line says so. 0; -1 with nothing added without
// a store or memory.
int list_messages(struct blob_buf *reply);
// Adds the fields of one message to an empty reply. 0; -1 with nothing added when there is no such message or it does
// not fit into a bus message.
int get_message(struct blob_buf *reply, int32_t index);
