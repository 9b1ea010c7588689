// The store of received messages: an array in memory that is mirrored in a file. The requester, and now and then the
// response processor, add messages, the bus thread lists, marks and deletes them; all under message_array_mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "file_ops.h"
#include "message_record.h"
#include "mutex_lock.h"

struct blob_buf;

constexpr const char *MESSAGE_FILE = "/data/in_messages";
constexpr const char *LEGACY_MESSAGE_FILE = "/data/messages.json";

// A full store refuses further messages, which then stay on the SIM.
constexpr uint32_t MOST_MESSAGES = 20000;
constexpr size_t MOST_MESSAGE_BYTES = 8u << 20;

// How much of the array the file holds already.
struct MessageFileState {
    bool current; // the first `count` messages, as they stand, are the whole file
    uint32_t count;
    FileIdentity identity; // of the file written or read last; all 0 before that
};

struct MessageArray {
    StoredMessage **items; // in order of arrival; a client's index is the position plus one
    uint32_t count;
    uint32_t capacity;
    size_t bytes; // of all records
    bool present; // false before the file is loaded and after the store is freed
    bool closed;  // freed: nothing is loaded any more
    MessageFileState file;
};

extern MessageArray message_array; // guarded by message_array_mutex
extern pthread_mutex_t message_array_mutex;

struct MessageArrayLock : MutexLock {
    MessageArrayLock() : MutexLock(&message_array_mutex) {}
};

// The caller holds the mutex of these; array_append takes the message over when it returns 0, -1 means full or no
// memory.
int array_append(MessageArray *array, StoredMessage *message);
void array_remove(MessageArray *array, uint32_t position);
// Puts `message` in the place of the one at `position`, which is freed.
void array_replace(MessageArray *array, uint32_t position, StoredMessage *message);
void array_clear(MessageArray *array); // leaves it present and empty
void array_free(MessageArray *array);  // leaves it as before a load

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
// messages that fit are listed, "truncated" (true) is added, and one log line says so. 0; -1 with nothing added without a
// store or memory.
int list_messages(struct blob_buf *reply);
// Adds the fields of one message to an empty reply. 0; -1 with nothing added when there is no such message or it does
// not fit into a bus message.
int get_message(struct blob_buf *reply, int32_t index);
