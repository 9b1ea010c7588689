// The broker: who is on the bus, what they offer, and which message goes where. It knows no sockets and never waits;
// everything that a client sends is bounded by the limits below.
#pragma once

#include "ubusd_message.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
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

class broker {
public:
    // Puts a client on the bus and greets it. The sink must live until remove_client.
    bus_client &add_client(message_sink &sink, std::string user, std::string group);
    // Takes the client off with its objects; whoever waits for an answer of them is not told.
    void remove_client(bus_client &client);
    void receive(bus_client &client, bus_message &message);

private:
    // An answer other than these ends the request with that status.
    static constexpr int no_status = -1;

    int handle_request(bus_client &client, bus_message &message, blob_attr **tb);
    int handle_lookup(bus_client &client, const message_header &header, blob_attr **tb);
    int handle_add_object(bus_client &client, const message_header &header, blob_attr **tb);
    int handle_remove_object(bus_client &client, const message_header &header, blob_attr **tb);
    int handle_invoke(bus_client &client, const message_header &header, blob_attr **tb);
    int handle_subscribe(bus_client &client, blob_attr **tb);
    int handle_unsubscribe(bus_client &client, blob_attr **tb);
    int handle_notify(bus_client &client, const message_header &header, blob_attr **tb);
    int handle_event_call(bus_client &client, std::string_view method, blob_attr *data);
    int register_pattern(bus_client &client, blob_attr *data);
    int send_client_event(bus_client &client, blob_attr *data);
    void pass_answer(bus_client &client, bus_message &message, blob_attr **tb);

    // The object of the request, which is to be the client's own.
    int find_subscriber(bus_client &client, blob_attr **tb, bus_object **subscriber);
    int resolve_type(bus_client &client, blob_attr **tb, std::shared_ptr<bus_object_type> &type);
    int forward_call(bus_client &client, const message_header &header, blob_attr **tb, const bus_object &object);
    void end_subscription(bus_object &subscriber, bus_object &target);
    void end_subscriptions(bus_object &object);
    void send_active(const bus_object &target);
    void forget_object(bus_object &object);
    void send_object(bus_client &client, const message_header &header, const bus_object &object);
    void send_object_event(const char *id, uint32_t object, const std::string &path);
    void send_event(const bus_client *sender, const char *id, const void *data, size_t size);
    void send_status(bus_client &client, uint16_t seq, uint32_t peer, int status);
    uint32_t unused_id() const;

    std::map<uint32_t, std::unique_ptr<bus_client>> clients;
    std::map<uint32_t, bus_object> objects;
    std::map<std::string, uint32_t, std::less<>> paths;
    std::map<uint32_t, std::weak_ptr<bus_object_type>> types;
    std::set<uint32_t> listeners; // objects with patterns
    uint16_t event_seq = 0;
};
