// The pool queue against the same queue made of a mutex and condition variables.

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "pool_queue.h"

constexpr uint32_t capacity = 32;
constexpr uint32_t element_size = 16;

class PoolQueueFace {
public:
    PoolQueueFace()
    {
        (void)pool_queue_init(&queue_, element_size, capacity);
    }
    ~PoolQueueFace()
    {
        pool_queue_destroy(&queue_);
    }
    void *alloc()
    {
        void *element;
        while (!(element = pool_queue_alloc_for(&queue_, UINT32_MAX))) {
        }
        return element;
    }
    void *pop()
    {
        void *element;
        while (!(element = pool_queue_pop_for(&queue_, UINT32_MAX))) {
        }
        return element;
    }
    void *try_pop()
    {
        return pool_queue_try_pop(&queue_);
    }
    void *pop_for(uint32_t ms)
    {
        return pool_queue_pop_for(&queue_, ms);
    }
    void push(void *element)
    {
        pool_queue_push(&queue_, element);
    }
    void release(void *element)
    {
        pool_queue_release(&queue_, element);
    }

private:
    PoolQueue queue_;
};

class MutexQueue {
    struct Ring {
        void *slots[capacity];
        uint32_t first = 0;
        uint32_t count = 0;
        std::condition_variable given;
    };

public:
    MutexQueue()
    {
        for (uint32_t i = 0; i < capacity; i++)
            free_.slots[i] = storage_ + i * element_size;
        free_.count = capacity;
    }
    void *alloc()
    {
        return take(free_);
    }
    void *pop()
    {
        return take(messages_);
    }
    void *try_pop()
    {
        return try_take(messages_);
    }
    void *pop_for(uint32_t ms)
    {
        std::unique_lock lock(mutex_);
        bool there = messages_.given.wait_for(lock, std::chrono::milliseconds(ms), [&] { return messages_.count > 0; });
        return there ? first_of(messages_) : nullptr;
    }
    void push(void *element)
    {
        give(messages_, element);
    }
    void release(void *element)
    {
        give(free_, element);
    }

private:
    static void *first_of(Ring &ring)
    {
        void *element = ring.slots[ring.first];
        ring.first = (ring.first + 1) % capacity;
        ring.count--;
        return element;
    }
    void *take(Ring &ring)
    {
        std::unique_lock lock(mutex_);
        ring.given.wait(lock, [&] { return ring.count > 0; });
        return first_of(ring);
    }
    void *try_take(Ring &ring)
    {
        std::lock_guard lock(mutex_);
        return ring.count > 0 ? first_of(ring) : nullptr;
    }
    void give(Ring &ring, void *element)
    {
        {
            std::lock_guard lock(mutex_);
            ring.slots[(ring.first + ring.count++) % capacity] = element;
        }
        ring.given.notify_one();
    }

    std::mutex mutex_;
    unsigned char storage_[capacity * element_size];
    Ring free_;
    Ring messages_;
};

// One round: an element out of the pool, in, out again and back, by as many threads as there are on the same queue.
template<typename Queue> static void round_trip(benchmark::State &state)
{
    static Queue *queue;
    if (state.thread_index() == 0)
        queue = new Queue;
    for (auto _ : state) {
        queue->push(queue->alloc());
        queue->release(queue->pop());
    }
    if (state.thread_index() == 0) // the threads have met at the end of the loop
        delete queue;
}

template<typename Queue> static void look_into_empty(benchmark::State &state)
{
    static Queue *queue;
    if (state.thread_index() == 0)
        queue = new Queue;
    for (auto _ : state)
        benchmark::DoNotOptimize(queue->try_pop());
    if (state.thread_index() == 0)
        delete queue;
}

// As an answer's way: each round wakes a thread that sleeps in a wait with a limit, and is woken by it.
template<typename Queue> static void wake_and_be_woken(benchmark::State &state)
{
    constexpr uint32_t limit_ms = 10000;
    Queue there, back;
    std::thread other([&] {
        for (;;) {
            auto *element = static_cast<unsigned char *>(there.pop_for(limit_ms));
            bool last = element == nullptr || *element != 0;
            if (element != nullptr)
                there.release(element);
            back.push(back.alloc());
            if (last)
                return;
        }
    });
    auto round = [&](unsigned char last) {
        auto *element = static_cast<unsigned char *>(there.alloc());
        *element = last;
        there.push(element);
        back.release(back.pop_for(limit_ms));
    };
    for (auto _ : state)
        round(0);
    round(1);
    other.join();
}

BENCHMARK_TEMPLATE(round_trip, PoolQueueFace)->DenseThreadRange(1, 4)->UseRealTime();
BENCHMARK_TEMPLATE(round_trip, MutexQueue)->DenseThreadRange(1, 4)->UseRealTime();
BENCHMARK_TEMPLATE(look_into_empty, PoolQueueFace)->DenseThreadRange(1, 4)->UseRealTime();
BENCHMARK_TEMPLATE(look_into_empty, MutexQueue)->DenseThreadRange(1, 4)->UseRealTime();
BENCHMARK_TEMPLATE(wake_and_be_woken, PoolQueueFace)->UseRealTime();
BENCHMARK_TEMPLATE(wake_and_be_woken, MutexQueue)->UseRealTime();
