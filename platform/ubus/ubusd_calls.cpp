#include "ubusd_calls.h"

bool flag(blob_attr *attr)
{
    return attr && blob_get_u8(attr);
}

int forward_call(bus_client &client, const message_header &header, blob_attr **tb, const bus_object &object)
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

void pass_answer(bus_state &bus, bus_client &client, bus_message &message, blob_attr **tb)
{
    auto caller = bus.clients.find(message.header.peer);
    if (caller == bus.clients.end() || !tb[UBUS_ATTR_OBJID])
        return;
    const uint32_t id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (!client.objects.contains(id))
        return;
    caller->second->sink->send(make_message({0, message.header.type, message.header.seq, id}, message.blob));
}

void send_status(bus_client &client, uint16_t seq, uint32_t peer, int status)
{
    blob_builder blob;
    blob.put_u32(UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    client.sink->send(make_message({0, UBUS_MSG_STATUS, seq, peer}, blob.bytes()));
}
