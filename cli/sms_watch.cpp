// The bus announces no message, so the watch lists them again and again and prints what it did not know.

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "message_view.h"
#include "output.h"
#include "result_text.h"
#include "sms_commands.h"

constexpr int PAUSE_MS = 1000;
constexpr int LONGEST_PAUSE_MS = 60000;
constexpr int QUIET_FACTOR = 20; // a listing takes at most a twentieth of the time
constexpr int64_t WAIT_FOR_PARTS_MS = 20000;

// Fingerprints of messages.
struct Known {
    uint64_t *list;
    size_t count;
    size_t size;
};

struct Watch {
    Known before; // sorted
    Known now;
    bool first;           // nothing is printed yet: all of these were there
    bool hold_incomplete; // parts of a long message come one after the other
    bool held;
    bool no_memory;
};

static int compare(const void *left, const void *right)
{
    uint64_t a = *static_cast<const uint64_t *>(left);
    uint64_t b = *static_cast<const uint64_t *>(right);
    return (a > b) - (a < b);
}

static bool add(Known &known, uint64_t fingerprint)
{
    if (known.count == known.size) {
        size_t size = known.size ? known.size * 2 : 64;
        void *moved = realloc(known.list, size * sizeof(*known.list));
        if (!moved)
            return false;
        known.list = static_cast<uint64_t *>(moved);
        known.size = size;
    }
    known.list[known.count++] = fingerprint;
    return true;
}

static bool take_message(const Message &message, void *priv)
{
    Watch &watch = *static_cast<Watch *>(priv);
    uint64_t fingerprint = message_fingerprint(message);
    bool known = watch.before.count > 0 &&
                 bsearch(&fingerprint, watch.before.list, watch.before.count, sizeof(fingerprint), compare);
    if (!known && !watch.first) {
        if (watch.hold_incomplete && message.parts.known && message.parts.missing > 0) {
            watch.held = true;
            return true;
        }
        print_message(message, false);
    }
    watch.no_memory = !add(watch.now, fingerprint);
    return !watch.no_memory;
}

// Lists once and prints what is new; false when the daemon does not answer.
static bool look(Watch &watch, int64_t *held_since, Reply &reply)
{
    watch.now.count = 0;
    watch.held = false;
    watch.hold_incomplete = *held_since == 0 || now_ms() - *held_since < WAIT_FOR_PARTS_MS;
    if (!fetch_messages(reply))
        return false;
    visit_messages(reply, take_message, &watch);
    if (!watch.held)
        *held_since = 0;
    else if (*held_since == 0)
        *held_since = now_ms();
    std::swap(watch.before, watch.now);
    if (watch.before.count > 0)
        qsort(watch.before.list, watch.before.count, sizeof(*watch.before.list), compare);
    if (watch.first && output_is_terminal())
        print_line("Waiting for messages; Ctrl-C ends.");
    watch.first = false;
    output_flush();
    return true;
}

// Bus and daemon may go and come again; that is said once each time.
static int follow(Watch &watch)
{
    int64_t held_since = 0;
    bool away = false;
    for (;;) {
        Reply reply;
        int64_t began = now_ms();
        bool good = look(watch, &held_since, reply);
        if (bus_interrupted() || ferror(stdout)) // main reports what could not be written
            return EXIT_DONE;
        if (watch.no_memory)
            return fail(EXIT_REFUSED, "sms: out of memory");
        if (!good && watch.first)
            return explain("sms", reply);
        if (!good && !away)
            (void)explain("sms: waiting", reply); // the command goes on
        away = !good;
        if (away)
            bus_close();
        int64_t pause = away ? 0 : (now_ms() - began) * QUIET_FACTOR;
        if (bus_wait(static_cast<int>(std::clamp<int64_t>(pause, PAUSE_MS, LONGEST_PAUSE_MS))) == WaitEnd::interrupted)
            return EXIT_DONE;
    }
}

int watch_messages(const Arguments &)
{
    Watch watch = {};
    watch.first = true;
    (void)bus_wait(0); // Ctrl-C ends cleanly from here on
    int code = follow(watch);
    free(watch.before.list);
    free(watch.now.list);
    return code;
}
