// The main thread prepares the process, starts the workers, and then only waits for a stop signal.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include "at_listener.h"
#include "at_sender.h"
#include "config.h"
#include "files.h"
#include "final_results.h"
#include "link.h"
#include "log.h"
#include "message_store.h"
#include "port.h"
#include "probe.h"
#include "queues.h"
#include "requester.h"
#include "resp_processor.h"
#include "service.h"
#include "shell.h"
#include "waiting.h"
#include "wanmd.h"

constexpr char CONFIG_PATH[] = "/etc/ril.json";
constexpr int64_t STOP_LIMIT_MS = 2500; // then a worker hangs in something that does not end

struct Worker {
    void *(*body)(void *);
    pthread_t thread;
    bool started;
    std::atomic<uint8_t> ended;
};

// In the order in which they are started.
static Worker workers[] = {{resp_processor, {}, false, {0}},
                           {at_listener, {}, false, {0}},
                           {at_sender, {}, false, {0}},
                           {requester, {}, false, {0}},
                           {ubus_handler, {}, false, {0}}};
static Worker *const ubus_worker = &workers[4];
static Worker *const join_order[] = {&workers[4], &workers[3], &workers[2], &workers[1], &workers[0]};
static std::atomic<uint32_t> ended_word{0}; // moves with every `ended`

static void *run_worker(void *argument)
{
    Worker *worker = static_cast<Worker *>(argument);
    worker->body(nullptr);
    worker->ended.store(1);
    ended_word.fetch_add(1);
    wake_word(&ended_word);
    return nullptr;
}

static sigset_t stop_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGPIPE, SIGUSR1})
        sigaddset(&set, sig);
    return set;
}

static int initialize()
{
    int result = read_json(CONFIG_PATH);
    result |= parse_settings();
    result |= load_pre_execute();
    if (result)
        return result;
    if (!claim_port(&settings_g)) {
        log_error("another process has the port %s", settings_g.port);
        fprintf(stderr, "celmuxd: another process has the port %s\n", settings_g.port);
        exit(1);
    }
    probe_modem_info();
    start_message_store();
    return 0;
}

static void create_queues()
{
    (void)pool_queue_init(&at_tx_queue, sizeof(TextElem), 32);
    (void)pool_queue_init(&at_rx_queue, sizeof(TextElem), 32);
    (void)pool_queue_init(&resp_queue, sizeof(TextElem), 32);
    (void)pool_queue_init(&incomming_sms_queue, sizeof(int32_t), 127);
    link_init(settings_g.port && file_exists(settings_g.port) && file_exists("/dev/mhi_at"));
}

static void wait_for_stop(const sigset_t *signals)
{
    int sig = 0;
    do {
        if (sigwait(signals, &sig) == 0)
            CELMUX_LOG(LOG_INFO, "received signal %d", "main", sig);
    } while (sig != SIGINT && sig != SIGTERM);
}

// A worker may hang in a library or a driver that does not know `running`. What that worker holds is lost then, but the
// messages are saved.
static void leave_workers_behind()
{
    CELMUX_LOG(LOG_ERR, "a thread does not end, leaving it behind", "main");
    save_messages_for_exit();
    _exit(0);
}

static void join_workers()
{
    int64_t deadline = monotonic_ms() + STOP_LIMIT_MS;
    for (Worker *worker : join_order) {
        while (worker->started && !worker->ended.load()) {
            uint32_t seen = ended_word.load();
            if (worker == ubus_worker)
                pthread_kill(worker->thread,
                             SIGUSR1); // again and again: one that comes between two waits of a library is lost
            if (worker->ended.load())
                break;
            if (monotonic_ms() >= deadline)
                leave_workers_behind();
            wait_word(&ended_word, seen, 50);
        }
        if (worker->started)
            pthread_join(worker->thread, nullptr);
    }
}

// libubus clears 64 KiB when it connects, for messages that are seldom so large. With one heap for all threads, and no
// room kept in it, such a block is mapped: it is clear already, costs what is used of it and goes back when it is
// freed.
static void keep_heap_small()
{
#ifdef M_ARENA_MAX // of glibc; a router's C library has one heap and maps such blocks anyway
    constexpr int LARGE = 32768;
    (void)mallopt(M_ARENA_MAX, 1);
    (void)mallopt(M_TOP_PAD, 0);
    (void)mallopt(M_MMAP_THRESHOLD, LARGE);
#endif
}

// The daemon takes no arguments: one that is started by mistake would be a second one.
static int answer_arguments(const char *argument)
{
    constexpr char USAGE[] =
        "Usage: celmuxd [--help | --version]\n"
        "Owns the modem's AT port and serves the bus object celmux, in the foreground, until SIGTERM.\n"
        "Its settings are in /etc/ril.json; everything else is asked of it with ubus or celmux.\n";
    if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0)
        return fputs(USAGE, stdout) < 0;
    if (strcmp(argument, "--version") == 0)
        return puts("celmuxd " CELMUX_VERSION) < 0;
    fprintf(stderr, "celmuxd: there is no argument %s\n%s", argument, USAGE);
    return 1;
}

int main(int argc, char **argv)
{
    if (argc > 1)
        return answer_arguments(argv[1]);
    open_log();
    keep_heap_small();
    sigset_t signals = stop_signals();
    claim_children();
    celmuxd_wanmd_socket_init();
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        log_error("pthread_sigmask failed");
        exit(1);
    }
    if (init_stop_event() == -1 || initialize() != 0) {
        log_error("initialize failed");
        exit(1);
    }
    create_queues();
    for (Worker &worker : workers)
        worker.started = pthread_create(&worker.thread, nullptr, run_worker, &worker) == 0;

    wait_for_stop(&signals);
    stop_all();
    join_workers();
    log_info("%s thread exit gracefully", "main");
    link_free();
    free_results();
    free_configuration();
    return 0;
}
