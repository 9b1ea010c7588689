// Who is on the bus and what they offer: what all parts of the broker work on.
#pragma once

#include "ubusd_message.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

constexpr size_t objects_per_client_max = 1024;
constexpr size_t signature_bytes_per_client_max = 4 * UBUS_MAX_MSGLEN;
constexpr size_t patterns_per_client_max = 1024;
constexpr size_t subscriptions_per_client_max = 1024;
// A call is refused while this much waits for its owner, so that callers cannot get an owner dropped that is only busy.
constexpr size_t owner_backlog_max = 2 * UBUS_MAX_MSGLEN;

// Where the broker puts what a client is to receive. Neither function may call the broker back.
class message_sink {
public:
    virtual ~message_sink() = default;
    virtual void send(const std::vector<uint8_t> &message) = 0;
    virtual size_t queued() const = 0;
};

struct bus_client;

struct bus_object_type {
    uint32_t id;
    std::vector<uint8_t> signature; // payload of the SIGNATURE attribute
};

struct bus_object {
    uint32_t id;
    std::string path; // empty: anonymous
    std::shared_ptr<bus_object_type> type;
    bus_client *owner;
    std::vector<std::string> patterns; // of events
    std::vector<uint32_t> subscribers; // objects of others that get its notifications, as often as they asked for them
    std::vector<uint32_t> targets;     // objects of others whose notifications it gets
};

struct bus_client {
    uint32_t id;
    message_sink *sink;
    std::string user;
    std::string group;
    std::set<uint32_t> objects;
    size_t signature_bytes = 0;
    size_t pattern_count = 0;
    size_t subscription_count = 0;
};

struct bus_state {
    std::map<uint32_t, std::unique_ptr<bus_client>> clients;
    std::map<uint32_t, bus_object> objects;
    std::map<std::string, uint32_t, std::less<>> paths;
    std::map<uint32_t, std::weak_ptr<bus_object_type>> types;
    std::set<uint32_t> listeners; // objects with patterns
    uint16_t event_seq = 0;
};

// An id that nothing on the bus has.
uint32_t unused_id(const bus_state &bus);
