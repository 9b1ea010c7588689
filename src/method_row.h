// What the daemon knows of a method on the bus.
#pragma once

#include <cstdint>

extern "C" {
#include <libubus.h>
}

// What stands in the way of a method's answer.
enum class Kind : uint8_t {
    quick,  // nothing but memory and files: answered by the bus thread at once
    query,  // the modem; changes nothing and has no arguments, so that callers who wait together share one answer
    modem,  // the modem
    set_up, // scripts or settings beside the modem: never begun once its time is over
};

// Which group of the access-control file grants the method.
enum class Access : uint8_t {
    read,        // queries and message listing
    write,       // everything that changes something
    passthrough, // raw AT commands
};

struct MethodRow {
    const char *name;
    ubus_handler_t handler;
    const struct blobmsg_policy *policy; // null without arguments
    int policy_count;
    Access access;
    Kind kind;
    const char *description;
    const char *log_name = nullptr; // the method in the log, where that is not its name
};
