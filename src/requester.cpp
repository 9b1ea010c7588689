#include "requester.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "at_text.h"
#include "config.h"
#include "files.h"
#include "indications.h"
#include "link.h"
#include "log.h"
#include "message_index.h"
#include "modem_init.h"
#include "mutex_lock.h"
#include "queues.h"
#include "request.h"
#include "shell.h"
#include "waiting.h"
#include "wanmd.h"

constexpr int TRIES = 3;
constexpr uint32_t PASS_MS = 1000;
constexpr uint32_t IDLE_CEILING_MS = 60000; // a message, a connection attempt and a stop wake the thread at once
constexpr uint32_t SHORT_PAUSE_MS = 100;
constexpr int64_t ADDRESS_CHECK_MS = 10000;
constexpr int64_t WATCH_LIMIT_MS = 120000; // a context that is never reported must not keep messages unread for ever

std::atomic<uint8_t> g_connecting{0};

// connect_mutex protects the two below and makes ending a watch and beginning the next one exclude each other.
static pthread_mutex_t connect_mutex = PTHREAD_MUTEX_INITIALIZER;
static timespec g_connect_start_t; // when the attempt began
static uint32_t connect_attempt;   // counts the attempts

struct ConnectLock : MutexLock {
    ConnectLock() : MutexLock(&connect_mutex) {}
};

void begin_connect_watch()
{
    {
        ConnectLock lock;
        g_connect_start_t = monotonic_now();
        connect_attempt++;
        g_connecting.store(1);
    }
    pool_queue_wake(&incomming_sms_queue);
}

static void end_connect_watch(RequesterState *state)
{
    ConnectLock lock;
    ip_family_updated.store(0);
    state->arrange = true;
    if (state->attempt == connect_attempt) // otherwise the next attempt has begun meanwhile
        g_connecting.store(0);
}

constexpr int64_t NS_PER_MS = 1000000;

static int64_t elapsed_ns(const timespec &since)
{
    const timespec now = monotonic_now();
    return (static_cast<int64_t>(now.tv_sec) - since.tv_sec) * 1000 * NS_PER_MS + (now.tv_nsec - since.tv_nsec);
}

static bool elapsed_exceeds(const timespec &since, int64_t limit_ms)
{
    return elapsed_ns(since) > limit_ms * NS_PER_MS;
}

static void check_addresses()
{
    const bool ipv4 = file_exists("/tmp/ipv4config0");
    const bool ipv6 = file_exists("/tmp/ipv6config0");
    const char *family = nullptr;
    bool complete = false;
    log_debug("Checking if acquire ip successfully");
    switch (g_ip_family.load()) {
    case 0:
        family = "IPV4";
        complete = ipv4;
        break;
    case 2:
        family = "IPV6";
        complete = ipv6;
        break;
    case 3:
        family = "IPV4V6";
        complete = ipv4 && ipv6;
        break;
    }
    if (!family) {
        log_error("IP family incorrect");
    } else if (!complete) {
        log_debug("%s ip incomplete, restarting wanmd", family);
        at_wanmd_recall();
    }
}

static void watch_connection(RequesterState *state)
{
    timespec start;
    {
        ConnectLock lock;
        start = g_connect_start_t;
        state->arrange = state->arrange || state->attempt != connect_attempt;
        state->attempt = connect_attempt;
    }
    if (ip_family_updated.load()) {
        if (elapsed_exceeds(start, ADDRESS_CHECK_MS))
            check_addresses();
        end_connect_watch(state);
        return;
    }
    if (state->arrange) {
        state->arrange = false;
        log_debug("Arranging ip family update");
        (void)at_enqueue("AT+CGDCONT?\r", 0); // refused, it is left to other queries of the same kind
    }
    if (elapsed_exceeds(start, WATCH_LIMIT_MS)) {
        log_error("IP family not known after %d s, connection no longer watched",
                  static_cast<int>(WATCH_LIMIT_MS / 1000));
        end_connect_watch(state);
    }
}

static int64_t routine_interval_ms()
{
    return static_cast<int64_t>(settings_g.requester_interval_s) * 1000;
}

static void run_routine(RequesterState *state)
{
    if (state->routine_ran && !elapsed_exceeds(state->last_routine, routine_interval_ms()))
        return;
    state->routine_ran = true;
    state->last_routine = monotonic_now();
    log_info("Doing routine");
    log_link_statistics();
    if (state->pre_execute_pending)
        state->pre_execute_pending = handle_pre_execute_cmds() != 0;
    fetch_routine(&state->fetch);
}

static uint32_t idle_wait_ms(const RequesterState *state)
{
    int64_t left = routine_interval_ms() - elapsed_ns(state->last_routine) / NS_PER_MS + 1;
    if (left < SHORT_PAUSE_MS)
        return SHORT_PAUSE_MS;
    return left < IDLE_CEILING_MS ? static_cast<uint32_t>(left) : IDLE_CEILING_MS;
}

static void serve_messages(RequesterState *state, uint32_t since)
{
    if (g_scanning.load()) {
        // Every command is refused during a scan, so an index that is taken off the queue now would be lost.
        (void)sleep_while_running(SHORT_PAUSE_MS);
        return;
    }
    int32_t place;
    if (next_announced(&place, 0)) {
        fetch_announced(&state->fetch, place);
        return;
    }
    fetch_listed(&state->fetch);
    if (next_announced(&place, listing_is_due(&state->fetch) ? 0 : idle_wait_ms(state), &since))
        fetch_announced(&state->fetch, place);
}

RequesterState requester_start()
{
    return {{}, false, true, true, 0, message_fetch_start()};
}

void requester_pass(RequesterState *state)
{
    const uint32_t since = pool_queue_event(&incomming_sms_queue); // who wants something from now on ends the wait
    if (g_connecting.load()) {
        watch_connection(state);
        (void)sleep_while_running(PASS_MS);
        return;
    }
    run_routine(state);
    serve_messages(state, since);
}

static bool modem_is_expected()
{
    constexpr int BUSY_TRIES = 180; // a network scan that a stopped daemon left behind ends within that many seconds
    int failed = 0;
    for (int i = 0; i < BUSY_TRIES && failed < TRIES && running.load(); i++) {
        AtAnswer answer;
        if (request("AT+CGMI?", &answer.text, "+CGMI:", 1, AT_TIMEOUT_MS) != 0)
            failed++;
        else if (answer.usable())
            return strstr(answer.text, "Fibocom");
        else if (answer.has_error("+CME ERROR: 14")) // SIM busy
            (void)sleep_while_running(PASS_MS);
        else
            failed++; // an error may answer what a daemon that was killed had asked
    }
    CELMUX_LOG(LOG_INFO, "%s failed", "get_modem_manufacturer", "AT+CGMI?");
    return false;
}

void *requester(void *)
{
    static std::atomic<uint8_t> *const NEEDED[] = {&t_processor_ready, &t_listener_ready, &t_sender_ready};
    const bool expected = wait_ready(NEEDED, sizeof NEEDED / sizeof NEEDED[0]) && modem_is_expected();
    if (!expected && running.load()) {
        print_out("Quit celmuxd\n");
        (void)run_shell("/etc/init.d/celmux stop &");
        (void)sleep_while_running(PASS_MS);
        return nullptr;
    }
    if (expected) {
        if (set_modem() != 0)
            log_info("set_modem failed");
        g_sms_sweep.store(1);
        set_ready(&t_requester_ready);
    }
    RequesterState state = requester_start();
    while (running.load())
        requester_pass(&state);
    log_info("%s thread exit gracefully", "requester");
    return nullptr;
}
