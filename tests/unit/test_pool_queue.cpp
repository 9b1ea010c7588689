#include <atomic>
#include <gtest/gtest.h>
#include <latch>
#include <set>
#include <thread>
#include <vector>

#include "pool_queue.h"
#include "queues.h"
#include "waiting.h"

namespace {

struct QueueTest : testing::Test {
    PoolQueue queue;

    void make(uint32_t element_size, uint32_t capacity)
    {
        ASSERT_EQ(pool_queue_init(&queue, element_size, capacity), 0);
    }
    void TearDown() override
    {
        pool_queue_destroy(&queue);
    }
    void push(uint64_t value)
    {
        uint64_t *element = static_cast<uint64_t *>(pool_queue_try_alloc(&queue));
        *element = value;
        pool_queue_push(&queue, element);
    }
    uint64_t pop()
    {
        uint64_t *element = static_cast<uint64_t *>(pool_queue_try_pop(&queue));
        uint64_t value = *element;
        pool_queue_release(&queue, element);
        return value;
    }
};

TEST_F(QueueTest, RoundsCapacityAndElementSizeUp)
{
    make(4, 127);
    EXPECT_EQ(queue.capacity, 128u);
    EXPECT_EQ(queue.elem_size, 8u);
    std::set<void *> elements;
    while (void *element = pool_queue_try_alloc(&queue))
        elements.insert(element);
    EXPECT_EQ(elements.size(), 128u);
    EXPECT_EQ(queue.free_count.load(), 0);
    for (void *element : elements)
        pool_queue_release(&queue, element);
    EXPECT_EQ(queue.free_count.load(), 128);
}

TEST_F(QueueTest, KeepsOrderAcrossTheWrapOfItsCounters)
{
    make(8, 4);
    for (std::atomic<uint32_t> *index : {&queue.alloc_index, &queue.release_index, &queue.push_index, &queue.pop_index})
        index->store(UINT32_MAX - 31); // 8 times around the ring, so slots and counters agree
    for (uint64_t round = 0; round < 20; round++) {
        push(round);
        push(round + 100);
        EXPECT_EQ(pop(), round);
        EXPECT_EQ(pop(), round + 100);
    }
    EXPECT_EQ(pool_queue_try_pop(&queue), nullptr);
    EXPECT_EQ(queue.msg_count.load(), 0);
}

TEST_F(QueueTest, TimedCallsEndWithoutAnElement)
{
    make(8, 1);
    EXPECT_EQ(pool_queue_pop_for(&queue, 5), nullptr);
    void *element = pool_queue_alloc_for(&queue, 5);
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(pool_queue_alloc_for(&queue, 5), nullptr);
    pool_queue_release(&queue, element);
}

TEST_F(QueueTest, ASleepingAllocatorGetsTheElementThatIsGivenBack)
{
    make(8, 1);
    void *only = pool_queue_try_alloc(&queue);
    std::thread sleeper([&] { EXPECT_EQ(pool_queue_alloc_for(&queue, 60000), only); });
    while (queue.free_event_waiters.load() == 0)
        std::this_thread::yield();
    pool_queue_release(&queue, only);
    sleeper.join();
}

TEST_F(QueueTest, APushOrAWakeEndsATimedPopAtOnce)
{
    make(8, 2);
    for (bool pushes : {true, false}) {
        std::thread sleeper([&] {
            void *element = pool_queue_pop_for(&queue, 60000);
            EXPECT_EQ(element != nullptr, pushes);
            if (element)
                pool_queue_release(&queue, element);
        });
        while (queue.msg_event_waiters.load() == 0)
            std::this_thread::yield();
        if (pushes)
            push(1);
        else
            pool_queue_wake(&queue);
        sleeper.join();
    }
    uint32_t since = pool_queue_event(&queue);
    pool_queue_wake(&queue); // before the sleep begins
    int64_t begin = monotonic_ms();
    EXPECT_EQ(pool_queue_pop_for(&queue, 20000, &since), nullptr);
    EXPECT_LT(monotonic_ms() - begin, 10000);
}

// More threads than processors, so that some are interrupted at every place while the others go around the ring. An
// element that is lost leaves its taker in an endless wait, one that is given out twice has two owners.
TEST_F(QueueTest, EveryElementHasOneOwner)
{
    constexpr int THREADS = 6;
    constexpr int ROUNDS = 40000;
    make(8, 4);
    std::atomic<uint32_t> doubled{0};
    std::latch together(THREADS);
    auto work = [&] {
        together.arrive_and_wait();
        for (int i = 0; i < ROUNDS; i++) {
            for (bool allocates : {true, false}) {
                void *element;
                while (
                    !(element = allocates ? pool_queue_alloc_for(&queue, 60000) : pool_queue_pop_for(&queue, 60000))) {
                }
                auto *owners = static_cast<std::atomic<uint32_t> *>(element);
                doubled += owners->fetch_add(1) != 0;
                owners->fetch_sub(1);
                allocates ? pool_queue_push(&queue, element) : pool_queue_release(&queue, element);
            }
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back(work);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(doubled.load(), 0u);
    EXPECT_EQ(queue.free_count.load(), 4);
    EXPECT_EQ(queue.msg_count.load(), 0);
}

TEST(Waiting, StoppingEndsEverySleep)
{
    for (PoolQueue *each : {&at_tx_queue, &at_rx_queue, &resp_queue, &incomming_sms_queue})
        ASSERT_EQ(pool_queue_init(each, 8, 1), 0);
    ASSERT_EQ(init_stop_event(), 0);
    void *held = pool_queue_try_alloc(&at_tx_queue);
    std::thread sleeper([] { EXPECT_FALSE(sleep_while_running(60000)); });
    std::thread popper([] { EXPECT_EQ(pool_queue_pop_for(&resp_queue, 60000), nullptr); });
    std::thread allocator([] { EXPECT_EQ(pool_queue_alloc_for(&at_tx_queue, 60000), nullptr); });
    std::thread waiter([] {
        std::atomic<uint8_t> *const flags[] = {&t_sender_ready};
        EXPECT_FALSE(wait_ready(flags, 1));
    });
    while (resp_queue.msg_event_waiters.load() == 0 || at_tx_queue.free_event_waiters.load() == 0)
        std::this_thread::yield();
    stop_all();
    for (std::thread *thread : {&sleeper, &popper, &allocator, &waiter})
        thread->join();
    // Whoever was on the way to sleep when the stop came has missed the wake-up.
    EXPECT_EQ(pool_queue_pop_for(&incomming_sms_queue, 60000), nullptr);
    EXPECT_EQ(pool_queue_alloc_for(&at_tx_queue, 60000), nullptr);
    pool_queue_release(&at_tx_queue, held);
    running.store(1);
}

} // namespace
