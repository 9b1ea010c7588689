// Sorts what the modem sends: a burst whose last line begins with a configured final result answers the command in
// progress, every other one is unsolicited. Every burst is also scanned for indications.
#pragma once

#include <atomic>
#include <cstdint>

#include "celmux.h"

// Thread function.
void *resp_processor(void *);

// Passes an answer on to the waiting request; takes the text over. When the queue is full its oldest answer makes room.
// 0, or -1 after a log line (the text is freed then). Only the response processor's thread.
int resp_enqueue(TextElem *element);

// Announces a SIM storage index to the requester. An index that already waits is not queued twice; when the queue is
// full the index is dropped with a log line and g_sms_sweep is set. 0 or -1. Only the response processor's thread.
int sms_index_enqueue(int32_t index);
// The requester has taken the index off the queue: it may be announced again.
void sms_index_done(int32_t index);

// Set at the start, when a SIM is ready and when an index was dropped: the requester lists what the SIM holds once its
// queue is empty.
extern std::atomic<uint8_t> g_sms_sweep;
