// Feeds the link (link.h) with what the modem sends, acts on what it announces and passes answers on to their callers.
#pragma once

#include <atomic>
#include <cstdint>

// Thread function.
void *resp_processor(void *);

// Announces a SIM storage index to the requester. An index that already waits is not queued twice; when the queue is
// full the index is dropped with a log line and g_sms_sweep is set. 0 or -1. Only the response processor's thread.
int sms_index_enqueue(int32_t index);
// The requester has taken the index off the queue: it may be announced again.
void sms_index_done(int32_t index);

// Set at the start, when a SIM is ready and when an index was dropped: the requester lists what the SIM holds once its
// queue is empty.
extern std::atomic<uint8_t> g_sms_sweep;
