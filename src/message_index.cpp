#include "message_index.h"

#include "log.h"
#include "queues.h"

constexpr int64_t NO_INDEX = 0;
constexpr unsigned PENDING_MAX = 128; // as many as incomming_sms_queue holds

std::atomic<uint8_t> g_sms_sweep{0};
// The indexes that wait in incomming_sms_queue, each plus 1. The response processor fills this array, the requester
// empties it.
static std::atomic<int64_t> pending_indexes[PENDING_MAX];

static std::atomic<int64_t> *pending_slot(int64_t wanted)
{
    for (std::atomic<int64_t> &slot : pending_indexes) {
        if (slot.load() == wanted)
            return &slot;
    }
    return nullptr;
}

int sms_index_enqueue(int32_t index)
{
    if (index < 0) {
        log_error("message index %d ignored", index);
        return -1;
    }
    int64_t marked = static_cast<int64_t>(index) + 1;
    if (pending_slot(marked))
        return 0;
    std::atomic<int64_t> *slot = pending_slot(NO_INDEX);
    int32_t *element = slot ? static_cast<int32_t *>(pool_queue_try_alloc(&incomming_sms_queue)) : nullptr;
    if (!element) {
        log_error("failed to alloc sms_index");
        g_sms_sweep.store(1);
        return -1;
    }
    slot->store(marked);
    *element = index;
    pool_queue_push(&incomming_sms_queue, element);
    return 0;
}

void sms_index_done(int32_t index)
{
    std::atomic<int64_t> *slot = pending_slot(static_cast<int64_t>(index) + 1);
    if (slot)
        slot->store(NO_INDEX);
}
