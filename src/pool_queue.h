// A fixed-capacity multi-producer, multi-consumer FIFO that owns the pool of its elements: take a free element, fill
// it, push it; pop it, use it, release it. Both rings are lock-free; event counts only let a thread sleep. No memory is
// allocated after pool_queue_init.
#pragma once

#include <atomic>
#include <cstdint>

struct alignas(64) PoolQueue {
    uint32_t elem_size; // rounded up to a multiple of 8
    uint32_t capacity;  // rounded up to a power of two
    unsigned char *storage;
    std::atomic<void *> *free_ring; // elements and empty slots, with their turns
    std::atomic<void *> *msg_ring;

    alignas(64) std::atomic<int32_t> free_count;
    std::atomic<uint32_t> free_event;         // moves with each element that comes: what allocators sleep on
    std::atomic<uint32_t> free_event_waiters; // announced sleepers on free_event

    alignas(64) std::atomic<uint32_t> alloc_index;
    alignas(64) std::atomic<uint32_t> release_index;

    alignas(64) std::atomic<int32_t> msg_count;
    std::atomic<uint32_t> msg_event;
    std::atomic<uint32_t> msg_event_waiters;

    alignas(64) std::atomic<uint32_t> pop_index;
    alignas(64) std::atomic<uint32_t> push_index;
};

// Prepares a queue of at least `capacity` (1 or more) elements of at least `element_size` bytes.
// Returns 0, or -1 when memory cannot be had (nothing is kept then).
int pool_queue_init(PoolQueue *queue, uint32_t element_size, uint32_t capacity);
// Frees what pool_queue_init took. No thread may use the queue any more; what elements point to is the caller's.
void pool_queue_destroy(PoolQueue *queue);

// A free element, or null at once / null after `timeout_ms` without one.
void *pool_queue_try_alloc(PoolQueue *queue);
void *pool_queue_alloc_for(PoolQueue *queue, uint32_t timeout_ms);
// Gives an element back to the pool. Never fails.
void pool_queue_release(PoolQueue *queue, void *element);

// Appends an element of this queue's pool. Never fails.
void pool_queue_push(PoolQueue *queue, void *element);
// The oldest element, or null at once / null after `timeout_ms` without one or when pool_queue_wake was called.
void *pool_queue_try_pop(PoolQueue *queue);
void *pool_queue_pop_for(PoolQueue *queue, uint32_t timeout_ms, const uint32_t *since = nullptr);

// Taken before a look at what pool_queue_wake tells of, and given to pool_queue_pop_for as *since behind it: a push or
// wake in between ends that wait at once.
uint32_t pool_queue_event(const PoolQueue *queue);

// Ends every pool_queue_pop_for and pool_queue_alloc_for that sleeps now, so that its caller looks at the world again.
void pool_queue_wake(PoolQueue *queue);
