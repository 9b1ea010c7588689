// The queues between the threads, and the stop that ends every sleep in them. Main creates them before the threads
// start.
#pragma once

#include <cstdint>

#include "pool_queue.h"

// Element of at_tx_queue, at_rx_queue and resp_queue. `text` is a heap string (malloc) owned by whoever holds the
// element.
struct TextElem {
    char *text;
    uint32_t size;       // length of the string in at_tx_queue, capacity of the buffer in the other two
    uint32_t number = 0; // of the command (link.h): what is written, or what the text answers
};

extern PoolQueue at_tx_queue;         // TextElem: commands to write; link -> at_sender
extern PoolQueue at_rx_queue;         // TextElem: bursts read; at_listener -> resp_processor
extern PoolQueue resp_queue;          // TextElem: answers; resp_processor -> request
extern PoolQueue incomming_sms_queue; // int32_t: SIM storage indexes of new messages; resp_processor -> requester

// Clears `running` and ends every sleep of waiting.h and of the queues. Called once, by main.
void stop_all();
