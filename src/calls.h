// The calls on the bus that wait: for the modem, for a script, or for a connection to be set up. The bus thread takes
// them in, a worker thread carries them out one after the other, and the bus thread, which alone touches libubus,
// answers them.
#pragma once

#include <cstdint>

extern "C" {
#include <libubus.h>
}

constexpr unsigned MOST_WAITING_CALLS = 64;

// What stands in the way of a method's answer.
enum class Kind : uint8_t {
    quick,  // nothing but memory and files: answered by the bus thread at once
    query,  // the modem; changes nothing and has no arguments, so that callers who wait together share one answer
    modem,  // the modem
    set_up, // scripts or settings beside the modem: never begun once its time is over
};

// The handler of every method on the bus: logs the call and runs the row's own handler, which for all but quick methods
// puts the call aside by call_waits and is run again by the worker when the call's turn comes.
int serve_call(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req, const char *method,
               struct blob_attr *msg);

constexpr uint32_t CALL_TIMEOUT_MS = 3000;
constexpr uint32_t CALLER_PATIENCE_MS = 30000; // the bus's default

// What a handler asks once its arguments are good: true means that the call has been put aside, with a copy of `msg`,
// or refused, and that the handler returns UBUS_STATUS_OK without having replied. False means that it is the call's
// turn; when its time is over every request then fails at once, so that the handler gives its reply of a failure.
// `own_ms` is how long it waits while the modem is silent, `patience_ms` while the modem works.
bool call_waits(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg,
                uint32_t own_ms = CALL_TIMEOUT_MS, uint32_t patience_ms = CALLER_PATIENCE_MS);

// Takes over the reply in g_reply_buf when the calling thread is the worker: true. False on the bus thread.
bool worker_takes_reply();

// The rest is the bus thread's. The loop is there (uloop_init). 0, or -1 when the worker cannot be started.
int start_calls(struct ubus_context *ctx);
// The connection was lost: whoever called so far gets no answer any more. What waits is dropped, what is being done is
// finished.
void drop_calls();
// The daemon stops: every call gets its answer, at most a second after the worker has been told.
void answer_calls_for_stop();
// Waits for the worker to end. After answer_calls_for_stop.
void end_calls();
