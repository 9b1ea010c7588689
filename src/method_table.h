// The methods of the object "celmux", in the order in which the bus shows them.
#pragma once

#include <array>
#include <cstdint>

#include "calls.h"
#include "service.h"

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

constexpr size_t METHOD_COUNT = 68;
extern const std::array<MethodRow, METHOD_COUNT> method_rows;
