// Sleeps on a word (futex) rather than on a condition variable or a semaphore: their time-outs follow the realtime
// clock with some C libraries, and a router sets that clock while the daemon runs.

#include "waiting.h"

#include <climits>
#include <cstdlib>
#include <linux/futex.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

std::atomic<uint8_t> running{1};
std::atomic<uint8_t> t_processor_ready{0};
std::atomic<uint8_t> t_listener_ready{0};
std::atomic<uint8_t> t_sender_ready{0};
std::atomic<uint8_t> t_requester_ready{0};

static int stop_fd = -1;
static std::atomic<uint32_t> stop_word{0};  // moves once, in end_sleeps
static std::atomic<uint32_t> ready_word{0}; // moves with every ready flag, and in end_sleeps

// The layout that SYS_futex takes: two machine words, whatever the width of time_t.
struct FutexTime {
    long seconds;
    long nanoseconds;
};

timespec monotonic_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return now;
}

int64_t monotonic_ms()
{
    timespec now = monotonic_now();
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void wait_word(std::atomic<uint32_t> *word, uint32_t seen, uint32_t timeout_ms)
{
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
    FutexTime timeout = {static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1000000};
    (void)syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, seen, &timeout, nullptr, 0); // every outcome means: look again
}

void wake_word(std::atomic<uint32_t> *word)
{
    (void)syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

int init_stop_event()
{
    stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return stop_fd == -1 ? -1 : 0;
}

int stop_event_fd()
{
    return stop_fd;
}

void end_sleeps()
{
    running.store(0);
    uint64_t one = 1;
    if (stop_fd != -1 && write(stop_fd, &one, sizeof one) != sizeof one) {
        // Can only mean that the counter is full, so the descriptor is readable already.
    }
    for (std::atomic<uint32_t> *word : {&stop_word, &ready_word}) {
        word->fetch_add(1);
        wake_word(word);
    }
}

bool sleep_while_running(uint32_t ms)
{
    int64_t deadline = monotonic_ms() + ms;
    for (;;) {
        uint32_t seen = stop_word.load();
        int64_t left = deadline - monotonic_ms();
        if (!running.load())
            return false;
        if (left <= 0)
            return true;
        wait_word(&stop_word, seen, static_cast<uint32_t>(left));
    }
}

void set_ready(std::atomic<uint8_t> *flag)
{
    flag->store(1);
    ready_word.fetch_add(1);
    wake_word(&ready_word);
}

bool wait_ready(std::atomic<uint8_t> *const flags[], unsigned count)
{
    constexpr uint32_t CEILING_MS = 1000;
    for (;;) {
        uint32_t seen = ready_word.load();
        unsigned set = 0;
        while (set < count && flags[set]->load())
            set++;
        if (set == count)
            return true;
        if (!running.load())
            return false;
        wait_word(&ready_word, seen, CEILING_MS);
    }
}
