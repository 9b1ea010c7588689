#include "fake_clock.h"

#include "queues.h"
#include "waiting.h"

FakeClock fake_clock;

std::atomic<uint8_t> running{1};
std::atomic<uint8_t> t_processor_ready{0};
std::atomic<uint8_t> t_listener_ready{0};
std::atomic<uint8_t> t_sender_ready{0};
std::atomic<uint8_t> t_requester_ready{0};

void FakeClock::reset()
{
    *this = FakeClock();
}

int64_t monotonic_ms()
{
    return fake_clock.now_ms;
}

timespec monotonic_now()
{
    timespec now = {};
    now.tv_sec = static_cast<time_t>(fake_clock.now_ms / 1000);
    now.tv_nsec = static_cast<long>(fake_clock.now_ms % 1000) * 1000000;
    return now;
}

void wait_word(std::atomic<uint32_t> *, uint32_t, uint32_t timeout_ms)
{
    fake_clock.now_ms += timeout_ms;
}

void wake_word(std::atomic<uint32_t> *) {}

void end_sleeps()
{
    running.store(0);
}

int stop_event_fd()
{
    return -1;
}

int init_stop_event()
{
    return 0;
}

bool sleep_while_running(uint32_t ms)
{
    fake_clock.sleeps.push_back(ms);
    if (fake_clock.on_sleep)
        fake_clock.on_sleep(ms);
    fake_clock.now_ms += ms;
    return running.load();
}

void set_ready(std::atomic<uint8_t> *flag)
{
    flag->store(1);
}

bool wait_ready(std::atomic<uint8_t> *const flags[], unsigned count)
{
    for (unsigned i = 0; i < count; i++) {
        if (!flags[i]->load())
            return false;
    }
    return true;
}
