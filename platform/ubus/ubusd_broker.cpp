#include "ubusd_broker.h"

#include <algorithm>
#include <sys/random.h>

namespace {

bool flag(blob_attr *attr)
{
    return attr && blob_get_u8(attr);
}

} // namespace

uint32_t broker::unused_id() const
{
    for (;;) {
        uint32_t id = 0;
        if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id))
            continue; // interrupted
        if (id > UBUS_SYSTEM_OBJECT_MAX && !clients.contains(id) && !objects.contains(id) && !types.contains(id))
            return id;
    }
}

bus_client &broker::add_client(message_sink &sink, std::string user, std::string group)
{
    auto client = std::make_unique<bus_client>();
    client->id = unused_id();
    client->sink = &sink;
    client->user = std::move(user);
    client->group = std::move(group);
    bus_client &added = *client;
    clients[added.id] = std::move(client);
    blob_builder nothing;
    sink.send(make_message({0, UBUS_MSG_HELLO, 0, added.id}, nothing.bytes()));
    return added;
}

void broker::remove_client(bus_client &client)
{
    const std::set<uint32_t> gone = std::move(client.objects);
    client.objects.clear();
    const uint32_t id = client.id;
    std::vector<std::pair<uint32_t, std::string>> named;
    for (uint32_t object : gone) {
        bus_object &entry = objects.at(object);
        if (!entry.path.empty())
            named.emplace_back(object, entry.path);
        forget_object(entry);
    }
    clients.erase(id);
    for (auto &[object, path] : named)
        send_object_event("ubus.object.remove", object, path);
}

void broker::receive(bus_client &client, bus_message &message)
{
    blob_attr *tb[UBUS_ATTR_MAX];
    parse_message(message.attr(), message.blob.size(), tb);
    if (message.header.type == UBUS_MSG_STATUS || message.header.type == UBUS_MSG_DATA) {
        pass_answer(client, message, tb);
        return;
    }
    int status = handle_request(client, message, tb);
    bool wanted = message.header.type != UBUS_MSG_INVOKE || !flag(tb[UBUS_ATTR_NO_REPLY]);
    if (status != no_status && wanted)
        send_status(client, message.header.seq, message.header.peer, status);
}

int broker::handle_request(bus_client &client, bus_message &message, blob_attr **tb)
{
    message_header header = message.header;
    switch (header.type) {
    case UBUS_MSG_PING:
        header.type = UBUS_MSG_DATA;
        client.sink->send(make_message(header, message.blob));
        return UBUS_STATUS_OK;
    case UBUS_MSG_LOOKUP:
        return handle_lookup(client, header, tb);
    case UBUS_MSG_INVOKE:
        return handle_invoke(client, header, tb);
    case UBUS_MSG_ADD_OBJECT:
        return handle_add_object(client, header, tb);
    case UBUS_MSG_REMOVE_OBJECT:
        return handle_remove_object(client, header, tb);
    case UBUS_MSG_SUBSCRIBE:
        return handle_subscribe(client, tb);
    case UBUS_MSG_UNSUBSCRIBE:
        return handle_unsubscribe(client, tb);
    case UBUS_MSG_NOTIFY:
        return handle_notify(client, header, tb);
    case UBUS_MSG_MONITOR:
        return UBUS_STATUS_NOT_SUPPORTED;
    default:
        return UBUS_STATUS_INVALID_COMMAND;
    }
}

int broker::handle_invoke(bus_client &client, const message_header &header, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (id == UBUS_SYSTEM_OBJECT_EVENT)
        return handle_event_call(client, blob_get_string(tb[UBUS_ATTR_METHOD]), tb[UBUS_ATTR_DATA]);
    auto found = objects.find(id);
    if (found == objects.end())
        return UBUS_STATUS_NOT_FOUND;

    return forward_call(client, header, tb, found->second);
}

// Gives a call or a notification to an object's owner.
int broker::forward_call(bus_client &client, const message_header &header, blob_attr **tb, const bus_object &object)
{
    blob_builder call;
    call.put_u32(UBUS_ATTR_OBJID, object.id).put_string(UBUS_ATTR_METHOD, blob_get_string(tb[UBUS_ATTR_METHOD]));
    call.put_string(UBUS_ATTR_USER, client.user.c_str()).put_string(UBUS_ATTR_GROUP, client.group.c_str());
    // Always there: a library may refuse a call without data.
    call.put(UBUS_ATTR_DATA, tb[UBUS_ATTR_DATA] ? blob_data(tb[UBUS_ATTR_DATA]) : nullptr,
             tb[UBUS_ATTR_DATA] ? blob_len(tb[UBUS_ATTR_DATA]) : 0);
    if (flag(tb[UBUS_ATTR_NO_REPLY]))
        call.put(UBUS_ATTR_NO_REPLY, "\1", 1);
    if (call.bytes().empty())
        return UBUS_STATUS_INVALID_ARGUMENT; // with what the broker adds it is larger than its owner takes
    message_sink &owner = *object.owner->sink;
    if (owner.queued() + call.bytes().size() > owner_backlog_max)
        return UBUS_STATUS_NO_MEMORY;
    owner.send(make_message({0, UBUS_MSG_INVOKE, header.seq, client.id}, call.bytes()));
    return no_status;
}

void broker::pass_answer(bus_client &client, bus_message &message, blob_attr **tb)
{
    auto caller = clients.find(message.header.peer);
    if (caller == clients.end() || !tb[UBUS_ATTR_OBJID])
        return;
    const uint32_t id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (!client.objects.contains(id))
        return;
    caller->second->sink->send(make_message({0, message.header.type, message.header.seq, id}, message.blob));
}

void broker::send_status(bus_client &client, uint16_t seq, uint32_t peer, int status)
{
    blob_builder blob;
    blob.put_u32(UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    client.sink->send(make_message({0, UBUS_MSG_STATUS, seq, peer}, blob.bytes()));
}
