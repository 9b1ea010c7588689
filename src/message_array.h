// The received messages in memory. One array is the store's (message_store.h) and has a mutex; others are built while a
// file is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "file_ops.h"
#include "message_record.h"
#include "mutex_lock.h"

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
