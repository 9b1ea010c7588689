#include "ubusd_events.h"

#include <algorithm>
#include <array>

namespace {

bool matches(std::string_view pattern, std::string_view id)
{
    if (!pattern.ends_with('*'))
        return pattern == id;
    pattern.remove_suffix(1);
    return id.starts_with(pattern);
}

// The members `first` and `second` of a call's data, null where missing.
std::array<blob_attr *, 2> two_members(blob_attr *data, blobmsg_policy first, blobmsg_policy second)
{
    const blobmsg_policy policy[] = {first, second};
    std::array<blob_attr *, 2> tb = {};
    if (data)
        blobmsg_parse(policy, 2, tb.data(), blob_data(data), static_cast<unsigned int>(blob_len(data)));
    return tb;
}

void send_event(bus_state &bus, const bus_client *sender, const char *id, const void *data, size_t size)
{
    for (uint32_t listener : bus.listeners) {
        const bus_object &object = bus.objects.at(listener);
        bool wanted = std::any_of(object.patterns.begin(), object.patterns.end(),
                                  [&](const std::string &pattern) { return matches(pattern, id); });
        if (!wanted || object.owner == sender)
            continue;
        blob_builder blob;
        blob.put_u32(UBUS_ATTR_OBJID, listener).put_string(UBUS_ATTR_METHOD, id).put(UBUS_ATTR_DATA, data, size);
        if (!blob.bytes().empty())
            object.owner->sink->send(make_message({0, UBUS_MSG_INVOKE, ++bus.event_seq, 0}, blob.bytes()));
    }
}

int register_pattern(bus_state &bus, bus_client &client, blob_attr *data)
{
    auto [pattern, object] = two_members(data, {"pattern", BLOBMSG_TYPE_STRING}, {"object", BLOBMSG_TYPE_INT32});
    if (!pattern || !object)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = blobmsg_get_u32(object);
    auto found = bus.objects.find(id);
    if (found == bus.objects.end())
        return UBUS_STATUS_NOT_FOUND;
    if (found->second.owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    if (client.pattern_count >= patterns_per_client_max)
        return UBUS_STATUS_NO_MEMORY;
    found->second.patterns.emplace_back(blobmsg_get_string(pattern));
    client.pattern_count++;
    bus.listeners.insert(id);
    return UBUS_STATUS_OK;
}

int send_client_event(bus_state &bus, bus_client &client, blob_attr *data)
{
    auto [id, content] = two_members(data, {"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE});
    if (!id || !content)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const char *name = blobmsg_get_string(id);
    if (std::string_view(name).starts_with("ubus."))
        return UBUS_STATUS_PERMISSION_DENIED; // these tell what happens on the bus itself
    send_event(bus, &client, name, blobmsg_data(content), blobmsg_data_len(content));
    return UBUS_STATUS_OK;
}

} // namespace

int handle_event_call(bus_state &bus, bus_client &client, std::string_view method, blob_attr *data)
{
    if (method == "register")
        return register_pattern(bus, client, data);
    if (method == "send")
        return send_client_event(bus, client, data);
    return UBUS_STATUS_METHOD_NOT_FOUND;
}

void send_object_event(bus_state &bus, const char *id, uint32_t object, const std::string &path)
{
    blob_builder members;
    members.ok = members.ok && blobmsg_add_u32(&members.buf, "id", object) == 0 &&
                 blobmsg_add_string(&members.buf, "path", path.c_str()) == 0;
    if (members.ok)
        send_event(bus, nullptr, id, blob_data(members.buf.head), blob_len(members.buf.head));
}
