#include "result_text.h"

#include <cstdio>

extern "C" {
#include <libubus.h>
}

constexpr int32_t RESULT_ERROR = 65535;
constexpr int32_t RESULT_NO_CARRIER = 65536;
constexpr int32_t RESULT_NO_ANSWER = 65537;
constexpr int32_t RESULT_INCOMPLETE = 65538;
constexpr int32_t RESULT_REFUSED = -1;

// The daemon gives the same result at once while it scans, and when the modem answers without a value.
constexpr int SURELY_WAITED_MS = 900;

struct Reason {
    int32_t number;
    ExitCode code;
    char text[44];
};

static const Reason bus_reasons[] = {
    {UBUS_STATUS_INVALID_ARGUMENT, EXIT_USAGE, "the daemon does not accept these arguments"},
    {UBUS_STATUS_METHOD_NOT_FOUND, EXIT_USAGE, "the daemon has no such method"},
    {UBUS_STATUS_NOT_FOUND, EXIT_NO_DAEMON, "celmuxd is not on the bus; is it running?"},
    {UBUS_STATUS_NO_DATA, EXIT_REFUSED, "the daemon gave no answer"},
    {UBUS_STATUS_PERMISSION_DENIED, EXIT_REFUSED, "this user may not call that method"},
    {UBUS_STATUS_CONNECTION_FAILED, EXIT_NO_DAEMON, "no connection to the bus"},
    {UBUS_STATUS_NO_MEMORY, EXIT_REFUSED, "out of memory"},
};

static const Reason result_reasons[] = {
    {RESULT_ERROR, EXIT_REFUSED, "the modem refused it"},
    {RESULT_NO_CARRIER, EXIT_REFUSED, "the modem has no connection (NO CARRIER)"},
    {RESULT_INCOMPLETE, EXIT_REFUSED, "the modem's answer was incomplete"},
    {RESULT_REFUSED, EXIT_REFUSED, "refused, or there is no such thing"},
};

template<size_t count> static const Reason *find_reason(const Reason (&reasons)[count], int32_t number)
{
    for (const Reason &reason : reasons)
        if (reason.number == number)
            return &reason;
    return nullptr;
}

ExitCode describe_failure(const Reply &reply, char *text, size_t size)
{
    if (reply.bus_status && bus_interrupted()) {
        snprintf(text, size, "interrupted");
        return EXIT_REFUSED;
    }
    if (reply.bus_status == UBUS_STATUS_TIMEOUT) {
        snprintf(text, size, "the daemon did not answer within %d s", (reply.elapsed_ms + 500) / 1000);
        return EXIT_TIMED_OUT;
    }
    int32_t result = reply.result;
    if (reply.bus_status == 0 && reply.answered && result == RESULT_NO_ANSWER) {
        if (reply.elapsed_ms < SURELY_WAITED_MS) {
            snprintf(text, size, "the modem is busy (a network scan, or it is starting) or has nothing to tell");
            return EXIT_REFUSED;
        }
        snprintf(text, size, "the modem did not answer within %d s", (reply.elapsed_ms + 500) / 1000);
        return EXIT_TIMED_OUT;
    }
    int bus_status = reply.bus_status == 0 && !reply.answered ? int{UBUS_STATUS_NO_DATA} : reply.bus_status;
    const Reason *reason = bus_status ? find_reason(bus_reasons, bus_status) : find_reason(result_reasons, result);
    if (reason)
        snprintf(text, size, "%s", reason->text);
    else if (bus_status)
        snprintf(text, size, "the bus says: %s", ubus_strerror(bus_status));
    else if (result > RESULT_ERROR) // several results in one number
        snprintf(text, size, "the modem refused a part of it, or did not answer");
    else
        snprintf(text, size, "the router's settings could not be changed (error %d)", static_cast<int>(result));
    return reason ? reason->code : bus_status ? EXIT_NO_DAEMON : EXIT_REFUSED;
}

int explain(const char *what, const Reply &reply)
{
    if (reply.done())
        return EXIT_DONE;
    char why[160];
    ExitCode code = describe_failure(reply, why, sizeof(why));
    return fail(code, "%s%s%s", what ? what : "", what ? ": " : "", why);
}

int bus_do(const char *method, const CallArguments *arguments, const char *what, int timeout_ms)
{
    Reply reply;
    (void)bus_call(method, arguments, reply, timeout_ms); // explain() looks at the reply
    return explain(what, reply);
}
