// The places on the SIM that new messages were announced at: from the response processor to the requester.
#pragma once

#include <atomic>
#include <cstdint>

// Announces a SIM storage index to the requester. An index that already waits is not queued twice; when the queue is
// full the index is dropped with a log line and g_sms_sweep is set. 0 or -1. Only the response processor's thread.
int sms_index_enqueue(int32_t index);
// The requester has taken the index off the queue: it may be announced again.
void sms_index_done(int32_t index);

// Set at the start, when a SIM is ready and when an index was dropped: the requester lists what the SIM holds once its
// queue is empty.
extern std::atomic<uint8_t> g_sms_sweep;
