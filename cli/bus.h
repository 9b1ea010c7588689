// The bus object `celmux` as commands use it: arguments in, a copy of the answer out. One connection, made on the first
// use and closed by bus_close(). One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

extern "C" {
#include <libubox/blobmsg.h>
}

// What a call came to; freed with its object. `result` is the member of that name.
struct Reply {
    int bus_status = 0;        // enum ubus_msg_status; 10 (connection failed) also without a bus
    bool answered = false;     // an answer came (only with bus status 0)
    int32_t result = 0;        // 0 when the answer has no such member
    int elapsed_ms = 0;        // how long the call took
    blob_attr *data = nullptr; // the answer's members, for blobmsg_for_each_attr; null without an answer

    Reply() = default;
    ~Reply();
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    // Whether bus and modem did what was asked for. If not, explain() of result_text.h says why.
    bool done() const
    {
        return bus_status == 0 && answered && result == 0;
    }

    // The first member of this name and type: null or nullopt when there is none. Texts live as long as the reply and
    // may hold anything that came over the air.
    blob_attr *member(const char *name) const;
    const char *text(const char *name) const;
    std::optional<int32_t> number(const char *name) const; // of INT8 to INT32
};

// The arguments of a call, to be filled with blobmsg_add_...(&arguments.buf, ...).
struct CallArguments {
    blob_buf buf = {};
    CallArguments();
    ~CallArguments();
    CallArguments(const CallArguments &) = delete;
    CallArguments &operator=(const CallArguments &) = delete;

    void text(const char *name, const char *value);
    void number(const char *name, int32_t value);
};

constexpr int CALL_TIMEOUT_MS = 30000;

// Calls a method of `celmux` and waits for its end. `arguments` may be null. The wait is that of --timeout, else
// timeout_ms. `reply` must be fresh. Returns reply.done().
bool bus_call(const char *method, const CallArguments *arguments, Reply &reply, int timeout_ms = CALL_TIMEOUT_MS);

// The same where the caller's limit holds whatever --timeout says.
bool bus_call_within(const char *method, const CallArguments *arguments, Reply &reply, int timeout_ms);

// Sends an AT command line (without its carriage return); "resp" of the reply is the modem's whole answer, whatever its
// final result is. The modem has --timeout, else modem_timeout_ms, for it. The daemon's -1, which says that the modem
// is busy or silent, becomes 65537.
bool bus_at_command(const char *command, Reply &reply, int modem_timeout_ms = 3000);

// Tells of one event; true ends the wait.
using EventHandler = bool (*)(const char *type, blob_attr *message, void *priv);

// Registers for events of this type (a trailing * takes what begins so); once in a process. Events that come before
// bus_wait() are kept for it. Returns a bus status.
int bus_listen(const char *pattern, EventHandler handler, void *priv);

enum class WaitEnd { happened, timed_out, interrupted, connection_lost };

// Serves events until a handler returns true, the time is up, a SIGINT or SIGTERM comes or the bus goes away. Calls may
// be made before and between waits; from the first wait on (even one of 0 ms) these signals end calls as well. Without
// bus_listen() it is a mere pause that Ctrl-C ends.
WaitEnd bus_wait(int timeout_ms);

// Whether a SIGINT or SIGTERM came since the first wait; calls fail from then on.
bool bus_interrupted();

// Milliseconds of the monotonic clock.
int64_t now_ms();

// Closes the connection; harmless without one. The next call makes a new one.
void bus_close();
