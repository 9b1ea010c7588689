#include "ubusd_broker.h"

#include "ubusd_calls.h"
#include "ubusd_events.h"
#include "ubusd_objects.h"
#include "ubusd_subscriptions.h"

bus_client &broker::add_client(message_sink &sink, std::string user, std::string group)
{
    auto client = std::make_unique<bus_client>();
    client->id = unused_id(bus);
    client->sink = &sink;
    client->user = std::move(user);
    client->group = std::move(group);
    bus_client &added = *client;
    bus.clients[added.id] = std::move(client);
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
        bus_object &entry = bus.objects.at(object);
        if (!entry.path.empty())
            named.emplace_back(object, entry.path);
        forget_object(bus, entry);
    }
    bus.clients.erase(id);
    for (auto &[object, path] : named)
        send_object_event(bus, "ubus.object.remove", object, path);
}

void broker::receive(bus_client &client, bus_message &message)
{
    blob_attr *tb[UBUS_ATTR_MAX];
    parse_message(message.attr(), message.blob.size(), tb);
    if (message.header.type == UBUS_MSG_STATUS || message.header.type == UBUS_MSG_DATA) {
        pass_answer(bus, client, message, tb);
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
        return handle_lookup(bus, client, header, tb);
    case UBUS_MSG_INVOKE:
        return handle_invoke(client, header, tb);
    case UBUS_MSG_ADD_OBJECT:
        return handle_add_object(bus, client, header, tb);
    case UBUS_MSG_REMOVE_OBJECT:
        return handle_remove_object(bus, client, header, tb);
    case UBUS_MSG_SUBSCRIBE:
        return handle_subscribe(bus, client, tb);
    case UBUS_MSG_UNSUBSCRIBE:
        return handle_unsubscribe(bus, client, tb);
    case UBUS_MSG_NOTIFY:
        return handle_notify(bus, client, header, tb);
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
        return handle_event_call(bus, client, blob_get_string(tb[UBUS_ATTR_METHOD]), tb[UBUS_ATTR_DATA]);
    auto found = bus.objects.find(id);
    if (found == bus.objects.end())
        return UBUS_STATUS_NOT_FOUND;

    return forward_call(client, header, tb, found->second);
}
