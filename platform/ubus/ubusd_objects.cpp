#include "ubusd_objects.h"

#include "ubusd_events.h"
#include "ubusd_subscriptions.h"

namespace {

// Beside path and signature a lookup's answer holds ids and headers.
constexpr size_t lookup_overhead = 64;

// One table for each method.
bool is_signature(blob_attr *attr)
{
    blob_attr *pos;
    size_t left;
    blob_for_each_attr(pos, attr, left)
    {
        if (!blobmsg_check_attr_len(pos, true, left) || blobmsg_type(pos) != BLOBMSG_TYPE_TABLE)
            return false;
    }
    return left == 0;
}

void send_object(bus_client &client, const message_header &header, const bus_object &object)
{
    blob_builder blob;
    blob.put_string(UBUS_ATTR_OBJPATH, object.path.c_str()).put_u32(UBUS_ATTR_OBJID, object.id);
    blob.put_u32(UBUS_ATTR_OBJTYPE, object.type->id);
    blob.put(UBUS_ATTR_SIGNATURE, object.type->signature.data(), object.type->signature.size());
    client.sink->send(make_message({0, UBUS_MSG_DATA, header.seq, header.peer}, blob.bytes()));
}

int resolve_type(bus_state &bus, bus_client &client, blob_attr **tb, std::shared_ptr<bus_object_type> &type)
{
    if (tb[UBUS_ATTR_OBJTYPE]) {
        auto known = bus.types.find(blob_get_u32(tb[UBUS_ATTR_OBJTYPE]));
        if (known == bus.types.end())
            return UBUS_STATUS_NOT_FOUND;
        type = known->second.lock();
        return UBUS_STATUS_OK;
    }
    blob_attr *signature = tb[UBUS_ATTR_SIGNATURE];
    if (!signature)
        return UBUS_STATUS_OK;
    if (!is_signature(signature))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (client.signature_bytes + blob_len(signature) > signature_bytes_per_client_max)
        return UBUS_STATUS_NO_MEMORY;
    auto *bytes = static_cast<const uint8_t *>(blob_data(signature));
    type = std::make_shared<bus_object_type>();
    type->id = unused_id(bus);
    type->signature.assign(bytes, bytes + blob_len(signature));
    return UBUS_STATUS_OK;
}

} // namespace

int handle_lookup(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb)
{
    std::string_view path = tb[UBUS_ATTR_OBJPATH] ? blob_get_string(tb[UBUS_ATTR_OBJPATH]) : "*";
    if (!path.ends_with('*')) {
        auto found = bus.paths.find(path);
        if (found == bus.paths.end())
            return UBUS_STATUS_NOT_FOUND;
        send_object(client, header, bus.objects.at(found->second));
        return UBUS_STATUS_OK;
    }
    path.remove_suffix(1);
    bool any = !tb[UBUS_ATTR_OBJPATH];
    for (auto at = bus.paths.lower_bound(path); at != bus.paths.end() && at->first.starts_with(path); ++at) {
        send_object(client, header, bus.objects.at(at->second));
        any = true;
    }
    return any ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
}

int handle_add_object(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb)
{
    if (client.objects.size() >= objects_per_client_max)
        return UBUS_STATUS_NO_MEMORY;
    bus_object object = {};
    int status = resolve_type(bus, client, tb, object.type);
    if (status != UBUS_STATUS_OK)
        return status;
    if (tb[UBUS_ATTR_OBJPATH]) {
        object.path = blob_get_string(tb[UBUS_ATTR_OBJPATH]);
        if (object.path.empty() || !object.type || bus.paths.contains(object.path))
            return UBUS_STATUS_INVALID_ARGUMENT;
        if (object.path.size() + object.type->signature.size() + lookup_overhead > UBUS_MAX_MSGLEN)
            return UBUS_STATUS_INVALID_ARGUMENT;
    }
    object.id = unused_id(bus);
    object.owner = &client;
    blob_builder ids;
    ids.put_u32(UBUS_ATTR_OBJID, object.id);
    if (object.type) {
        ids.put_u32(UBUS_ATTR_OBJTYPE, object.type->id);
        bus.types[object.type->id] = object.type;
        client.signature_bytes += object.type->signature.size();
    }
    const uint32_t id = object.id;
    const std::string path = object.path;
    bus.objects.emplace(id, std::move(object));
    client.objects.insert(id);
    client.sink->send(make_message({0, UBUS_MSG_DATA, header.seq, header.peer}, ids.bytes()));
    if (!path.empty()) {
        bus.paths.emplace(path, id);
        send_object_event(bus, "ubus.object.add", id, path);
    }
    return UBUS_STATUS_OK;
}

int handle_remove_object(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_OBJID])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    auto found = bus.objects.find(id);
    if (found == bus.objects.end())
        return UBUS_STATUS_NOT_FOUND;
    if (found->second.owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    const std::string path = found->second.path;
    blob_builder ids;
    ids.put_u32(UBUS_ATTR_OBJID, id);
    if (found->second.type)
        ids.put_u32(UBUS_ATTR_OBJTYPE, found->second.type->id);
    client.objects.erase(id);
    forget_object(bus, found->second);
    client.sink->send(make_message({0, UBUS_MSG_DATA, header.seq, header.peer}, ids.bytes()));
    if (!path.empty())
        send_object_event(bus, "ubus.object.remove", id, path);
    return UBUS_STATUS_OK;
}

void forget_object(bus_state &bus, bus_object &object)
{
    bus_client &owner = *object.owner;
    end_subscriptions(bus, object);
    owner.pattern_count -= object.patterns.size();
    bus.listeners.erase(object.id);
    if (!object.path.empty())
        bus.paths.erase(object.path);
    const uint32_t id = object.id;
    std::shared_ptr<bus_object_type> type = std::move(object.type);
    bus.objects.erase(id);
    if (!type)
        return;
    owner.signature_bytes -= type->signature.size();
    if (type.use_count() == 1)
        bus.types.erase(type->id);
}
