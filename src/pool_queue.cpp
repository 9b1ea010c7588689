// The queue between the daemon's threads. Any thread may call any operation, and no lock is taken. The counters decide
// which thread may claim or fill a slot; the element itself is handed over in the slot.

#include "pool_queue.h"

#include <cstdlib>
#include <unistd.h>

#include "waiting.h"

constexpr useconds_t SPIN_US = 10;

// One direction of the queue: the free ring or the message ring, whose algorithms are the same.
namespace {
struct Ring {
    std::atomic<void *> *slots;
    uint32_t capacity;
    uint32_t ahead; // by so much an element's take index is ahead of the give index: it was full or empty at the start
    std::atomic<int32_t> *count;
    std::atomic<uint32_t> *take_index;
    std::atomic<uint32_t> *give_index;
    std::atomic<uint32_t> *event;
    std::atomic<uint32_t> *event_waiters;
};
} // namespace

static Ring free_ring_of(PoolQueue *q)
{
    return {q->free_ring,    q->capacity,       q->capacity,    &q->free_count,
            &q->alloc_index, &q->release_index, &q->free_event, &q->free_event_waiters};
}

static Ring msg_ring_of(PoolQueue *q)
{
    return {q->msg_ring,   q->capacity,          0, &q->msg_count, &q->pop_index, &q->push_index,
            &q->msg_event, &q->msg_event_waiters};
}

// Takes one off the count. Never below 0, not even for a moment: two threads whose last tries before they sleep overlap
// would otherwise hide an element from each other, and both sleep.
static bool claim(std::atomic<int32_t> *count)
{
    int32_t seen = count->load();
    while (seen > 0) {
        if (count->compare_exchange_weak(seen, seen - 1))
            return true;
    }
    return false;
}

// A slot holds the element, or null, and in the low bits (elements are aligned to 8 bytes) whose turn it is: how often,
// modulo 8, the ring went around until the taker that gets this element, or the element that comes next. Without it a
// thread that pauses between its claim and the slot while the others go once around would give out an element twice or
// wipe one out. Two threads can only have the same number when 8 wait for the same slot.
constexpr uintptr_t TURNS = 7;

static uintptr_t turn_of(const Ring &ring, uint32_t take_index)
{
    return take_index / ring.capacity & TURNS;
}

static void *try_take(const Ring &ring)
{
    if (!claim(ring.count))
        return nullptr;
    uint32_t index = ring.take_index->fetch_add(1);
    std::atomic<void *> &slot = ring.slots[index & (ring.capacity - 1)];
    uintptr_t turn = turn_of(ring, index);
    uintptr_t held;
    while ((held = reinterpret_cast<uintptr_t>(slot.load(std::memory_order_acquire))) <= TURNS ||
           (held & TURNS) != turn)
        usleep(SPIN_US);
    slot.store(reinterpret_cast<void *>(turn_of(ring, index + ring.capacity)), std::memory_order_release);
    return reinterpret_cast<void *>(held - turn);
}

static void give(const Ring &ring, void *element)
{
    uint32_t index = ring.give_index->fetch_add(1);
    std::atomic<void *> &slot = ring.slots[index & (ring.capacity - 1)];
    uintptr_t turn = turn_of(ring, index + ring.ahead);
    while (slot.load(std::memory_order_acquire) != reinterpret_cast<void *>(turn))
        usleep(SPIN_US);
    slot.store(reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(element) + turn), std::memory_order_release);
    ring.count->fetch_add(1);
    ring.event->fetch_add(1);
    if (ring.event_waiters->load() != 0)
        wake_word(ring.event);
}

// `end_when_woken` ends the wait without an element when the event moved, since *since if given, but nothing was there
// to take.
static void *take_for(const Ring &ring, uint32_t timeout_ms, bool end_when_woken, const uint32_t *since)
{
    int64_t deadline = monotonic_ms() + timeout_ms;
    for (;;) {
        uint32_t seen = since ? *since : ring.event->load();
        void *element = try_take(ring);
        if (element)
            return element;
        int64_t left = deadline - monotonic_ms();
        // This check stands between the reading of the event and the sleep. Otherwise a stop that changed the event
        // just before it was read would be missed.
        if (left <= 0 || running.load() == 0)
            return nullptr;
        ring.event_waiters->fetch_add(1);
        wait_word(ring.event, seen, static_cast<uint32_t>(left));
        ring.event_waiters->fetch_sub(1);
        if (end_when_woken && ring.event->load() != seen)
            return try_take(ring);
    }
}

static uint32_t next_power_of_two(uint32_t value)
{
    value--;
    for (unsigned shift = 1; shift <= 16; shift *= 2)
        value |= value >> shift;
    return value + 1;
}

static std::atomic<void *> *new_ring(uint32_t capacity)
{
    return static_cast<std::atomic<void *> *>(calloc(capacity, sizeof(std::atomic<void *>)));
}

int pool_queue_init(PoolQueue *queue, uint32_t element_size, uint32_t capacity)
{
    queue->elem_size = (element_size + 7) & ~7u;
    queue->capacity = next_power_of_two(capacity);
    queue->storage = static_cast<unsigned char *>(calloc(queue->capacity, queue->elem_size));
    queue->free_ring = new_ring(queue->capacity);
    queue->msg_ring = new_ring(queue->capacity);
    if (!queue->storage || !queue->free_ring || !queue->msg_ring) {
        pool_queue_destroy(queue);
        return -1;
    }
    for (uint32_t i = 0; i < queue->capacity; i++)
        queue->free_ring[i].store(queue->storage + static_cast<size_t>(i) * queue->elem_size);
    queue->free_count = static_cast<int32_t>(queue->capacity);
    queue->msg_count = 0;
    for (std::atomic<uint32_t> *counter :
         {&queue->free_event, &queue->free_event_waiters, &queue->alloc_index, &queue->release_index, &queue->msg_event,
          &queue->msg_event_waiters, &queue->pop_index, &queue->push_index})
        counter->store(0);
    return 0;
}

void pool_queue_destroy(PoolQueue *queue)
{
    free(queue->storage);
    free(queue->free_ring);
    free(queue->msg_ring);
    queue->storage = nullptr;
    queue->free_ring = queue->msg_ring = nullptr;
}

void *pool_queue_try_alloc(PoolQueue *queue)
{
    return try_take(free_ring_of(queue));
}

void *pool_queue_alloc_for(PoolQueue *queue, uint32_t timeout_ms)
{
    return take_for(free_ring_of(queue), timeout_ms, false, nullptr);
}

void pool_queue_release(PoolQueue *queue, void *element)
{
    give(free_ring_of(queue), element);
}

void pool_queue_push(PoolQueue *queue, void *element)
{
    give(msg_ring_of(queue), element);
}

void *pool_queue_try_pop(PoolQueue *queue)
{
    return try_take(msg_ring_of(queue));
}

uint32_t pool_queue_event(const PoolQueue *queue)
{
    return queue->msg_event.load();
}

void *pool_queue_pop_for(PoolQueue *queue, uint32_t timeout_ms, const uint32_t *since)
{
    return take_for(msg_ring_of(queue), timeout_ms, true, since);
}

void pool_queue_wake(PoolQueue *queue)
{
    queue->free_event.fetch_add(1);
    wake_word(&queue->free_event);
    queue->msg_event.fetch_add(1);
    wake_word(&queue->msg_event);
}
