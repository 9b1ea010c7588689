#include "link.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "at_mask.h"
#include "log.h"
#include "queues.h"
#include "waiting.h"

// Protects the machine and processor_wakes. No other lock is taken under it.
static pthread_mutex_t link_mutex = PTHREAD_MUTEX_INITIALIZER;
static LinkMachine machine;
static int64_t processor_wakes; // until then the response processor sleeps; microseconds
static std::atomic<uint8_t> silent{0};
static std::atomic<int64_t> scan_started{0}; // microseconds; 0 none yet
static std::atomic<uint32_t> scan_number{0}; // of the last scan's command
std::atomic<uint32_t> link_gap_bursts{0};
std::atomic<uint8_t> g_scanning{0};
std::atomic<uint8_t> g_scan_began{0};

static int64_t now_us()
{
    timespec now = monotonic_now();
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// An element without a text: unlike a bare wake-up it cannot come too early. With none free the processor is at work.
static void wake_processor()
{
    TextElem *element = static_cast<TextElem *>(pool_queue_try_alloc(&at_rx_queue));
    if (!element)
        return;
    *element = {};
    pool_queue_push(&at_rx_queue, element);
}

namespace {
// Holds the lock; at its end it tells other threads what they have to know.
struct LinkLock {
    LinkLock()
    {
        pthread_mutex_lock(&link_mutex);
    }
    ~LinkLock()
    {
        silent.store(machine.silent_since != 0);
        int64_t next = machine_next_tick(&machine, now_us());
        bool sooner = next < processor_wakes;
        if (sooner)
            processor_wakes = next;
        pthread_mutex_unlock(&link_mutex);
        if (sooner)
            wake_processor();
    }
    LinkLock(const LinkLock &) = delete;
    LinkLock &operator=(const LinkLock &) = delete;
};
} // namespace

static bool send(const char *text, size_t length, uint32_t number)
{
    TextElem *element = static_cast<TextElem *>(pool_queue_try_alloc(&at_tx_queue));
    char *copy = element ? static_cast<char *>(malloc(length + 1)) : nullptr;
    if (!copy) {
        CELMUX_LOG(LOG_ERR, "%s", "at_enqueue", element ? "failed to alloc at str" : "failed to alloc at");
        if (element)
            pool_queue_release(&at_tx_queue, element);
        return false;
    }
    memcpy(copy, text, length);
    copy[length] = '\0';
    *element = {copy, static_cast<uint32_t>(length), number};
    pool_queue_push(&at_tx_queue, element);
    return true;
}

void link_init(bool probed)
{
    LinkLock lock;
    machine_init(&machine, probed, send);
    processor_wakes = 0;
}

void link_free()
{
    LinkLock lock;
    machine_free(&machine);
}

void end_scan()
{
    g_scanning.store(0);
    g_scan_began.store(0);
}

static char *copy_command(const char *command, int append_cr)
{
    size_t length = strlen(command);
    char *copy = static_cast<char *>(malloc(length + 2));
    if (!copy)
        return nullptr;
    memcpy(copy, command, length);
    if (append_cr)
        copy[length++] = '\r';
    copy[length] = '\0';
    return copy;
}

// One that could not be sent for so long blocks nobody any more.
static void give_up_old_scan()
{
    constexpr int64_t LIMIT_US = 330000000; // later than the machine's own limit for one that was sent
    int64_t started = scan_started.load();
    if (!g_scanning.load() || now_us() - started < LIMIT_US)
        return;
    CELMUX_LOG(LOG_ERR, "network scan got no answer, given up", "at_enqueue");
    char *rest = nullptr;
    (void)link_abandon(scan_number.load(), &rest);
    free(rest);
    end_scan();
}

uint32_t link_submit(const char *command, int append_cr, const char *expected, LinkCaller caller)
{
    bool scan = strcmp(command, SCAN_COMMAND) == 0;
    uint8_t idle = 0;
    give_up_old_scan();
    if (scan && !g_scanning.load())
        scan_started.store(now_us());
    if (scan ? !g_scanning.compare_exchange_strong(idle, 1) : g_scanning.load() != 0) {
        CELMUX_LOG(LOG_INFO, "modem busy", "at_enqueue");
        return 0;
    }
    char *copy = copy_command(command, append_cr);
    uint32_t number = 0;
    if (!copy) {
        CELMUX_LOG(LOG_ERR, "failed to alloc at str", "at_enqueue");
    } else {
        LinkLock lock;
        number = machine_submit(&machine, copy, expected, caller, now_us());
    }
    if (copy && !number)
        CELMUX_LOG(LOG_ERR, "too many commands wait, refused: %s", "at_enqueue", Masked(command).text);
    if (scan)
        scan_number.store(number);
    if (scan && !number)
        end_scan();
    return number;
}

bool link_abandon(uint32_t number, char **answer)
{
    LinkLock lock;
    return machine_abandon(&machine, number, now_us(), answer);
}

bool link_send_message(uint32_t number, const char *pdu)
{
    LinkLock lock;
    return machine_send_message(&machine, number, pdu);
}

bool link_may_write(uint32_t number)
{
    LinkLock lock;
    return machine_may_write(&machine, number, now_us());
}

// Hands an outcome without text to its caller.
static void give_out(const LinkItem &item)
{
    if (item.kind != LinkItem::Kind::answer)
        return;
    if (item.scan)
        end_scan();
    free(item.text);
    TextElem *element = item.awaited ? static_cast<TextElem *>(pool_queue_try_alloc(&resp_queue)) : nullptr;
    if (!element)
        return; // the caller's time-out ends its wait
    *element = {nullptr, 0, item.number};
    pool_queue_push(&resp_queue, element);
}

void link_write_failed(uint32_t number)
{
    LinkItem item;
    {
        LinkLock lock;
        machine_write_failed(&machine, number, now_us(), &item);
    }
    give_out(item);
}

void link_restarted()
{
    LinkItem item;
    {
        LinkLock lock;
        machine_restarted(&machine, now_us(), &item);
    }
    give_out(item);
}

void link_doubt()
{
    LinkLock lock;
    machine_doubt(&machine, now_us());
}

bool link_at_prompt()
{
    LinkLock lock;
    return machine_at_prompt(&machine);
}

size_t link_take(const char *data, size_t size, LinkItem *item)
{
    LinkLock lock;
    processor_wakes = 0; // it is awake and asks before it sleeps
    return machine_take(&machine, data, size, now_us(), item);
}

void link_tick(LinkItem *item)
{
    LinkLock lock;
    processor_wakes = 0;
    machine_tick(&machine, now_us(), item);
}

uint32_t link_sleep_ms(uint32_t ceiling_ms)
{
    pthread_mutex_lock(&link_mutex);
    int64_t now = now_us();
    int64_t until = now + static_cast<int64_t>(ceiling_ms) * 1000;
    int64_t next = machine_next_tick(&machine, now);
    processor_wakes = next < until ? next : until;
    int64_t left = processor_wakes - now;
    pthread_mutex_unlock(&link_mutex);
    return left > 0 ? static_cast<uint32_t>((left + 999) / 1000) : 0;
}

bool link_silent()
{
    return silent.load();
}

void log_link_statistics()
{
    static uint32_t last[5];
    uint32_t now[5];
    {
        LinkLock lock;
        uint32_t counts[] = {machine.commands, machine.timeouts, machine.late_answers, machine.marks,
                             link_gap_bursts.load()};
        memcpy(now, counts, sizeof now);
    }
    uint32_t since[5];
    bool anything = false;
    for (int i = 0; i < 5; i++) {
        since[i] = now[i] - last[i];
        last[i] = now[i];
        anything = anything || since[i];
    }
    if (anything)
        log_info("link: %u commands, %u time-outs, %u late answers dropped, %u marks, %u bursts ended by gap", since[0],
                 since[1], since[2], since[3], since[4]);
}
