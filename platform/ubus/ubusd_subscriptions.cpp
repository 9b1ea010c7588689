#include "ubusd_subscriptions.h"

#include <algorithm>

#include "ubusd_calls.h"

namespace {

void remove_one(std::vector<uint32_t> &ids, uint32_t id)
{
    auto found = std::find(ids.begin(), ids.end(), id);
    if (found != ids.end())
        ids.erase(found);
}

int find_subscriber(bus_state &bus, bus_client &client, blob_attr **tb, bus_object **subscriber)
{
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_TARGET])
        return UBUS_STATUS_INVALID_ARGUMENT;
    auto found = bus.objects.find(blob_get_u32(tb[UBUS_ATTR_OBJID]));
    if (found == bus.objects.end())
        return UBUS_STATUS_NOT_FOUND;
    *subscriber = &found->second;
    return found->second.owner == &client ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
}

void send_active(bus_state &bus, const bus_object &target)
{
    const uint8_t active = !target.subscribers.empty();
    blob_builder blob;
    blob.put_u32(UBUS_ATTR_OBJID, target.id).put(UBUS_ATTR_ACTIVE, &active, 1);
    target.owner->sink->send(make_message({0, UBUS_MSG_NOTIFY, ++bus.event_seq, 0}, blob.bytes()));
}

void end_subscription(bus_state &bus, bus_object &subscriber, bus_object &target)
{
    remove_one(subscriber.targets, target.id);
    remove_one(target.subscribers, subscriber.id);
    subscriber.owner->subscription_count--;
    if (target.subscribers.empty())
        send_active(bus, target);
}

} // namespace

int handle_subscribe(bus_state &bus, bus_client &client, blob_attr **tb)
{
    bus_object *subscriber;
    if (int status = find_subscriber(bus, client, tb, &subscriber))
        return status;
    auto target = bus.objects.find(blob_get_u32(tb[UBUS_ATTR_TARGET]));
    if (target == bus.objects.end())
        return UBUS_STATUS_NOT_FOUND;
    if (target->second.owner == &client)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (client.subscription_count >= subscriptions_per_client_max)
        return UBUS_STATUS_NO_MEMORY;
    client.subscription_count++;
    subscriber->targets.push_back(target->first);
    target->second.subscribers.push_back(subscriber->id);
    if (target->second.subscribers.size() == 1)
        send_active(bus, target->second);
    return UBUS_STATUS_OK;
}

int handle_unsubscribe(bus_state &bus, bus_client &client, blob_attr **tb)
{
    bus_object *subscriber;
    if (int status = find_subscriber(bus, client, tb, &subscriber))
        return status;
    const uint32_t target = blob_get_u32(tb[UBUS_ATTR_TARGET]);
    if (std::ranges::count(subscriber->targets, target) == 0)
        return UBUS_STATUS_NOT_FOUND;
    end_subscription(bus, *subscriber, bus.objects.at(target));
    return UBUS_STATUS_OK;
}

int handle_notify(bus_state &bus, bus_client &client, const message_header &header, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    auto found = bus.objects.find(blob_get_u32(tb[UBUS_ATTR_OBJID]));
    if (found == bus.objects.end())
        return UBUS_STATUS_NOT_FOUND;
    const bus_object &object = found->second;
    if (object.owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    if (!tb[UBUS_ATTR_NO_REPLY] || !blob_get_u8(tb[UBUS_ATTR_NO_REPLY])) {
        blob_builder blob;
        blob.put_u32(UBUS_ATTR_OBJID, object.id);
        void *list = blob_nest_start(&blob.buf, UBUS_ATTR_SUBSCRIBERS);
        for (uint32_t subscriber : object.subscribers)
            blob.put_u32(UBUS_ATTR_UNSPEC, subscriber);
        blob_nest_end(&blob.buf, list);
        blob.put_u32(UBUS_ATTR_STATUS, UBUS_STATUS_OK);
        client.sink->send(make_message({0, UBUS_MSG_STATUS, header.seq, header.peer}, blob.bytes()));
    }
    // Who is too far behind to take it loses this one; with a reply wanted his notifier waits for it until his time is
    // up.
    for (uint32_t subscriber : object.subscribers)
        (void)forward_call(client, header, tb, bus.objects.at(subscriber));
    return no_status;
}

void end_subscriptions(bus_state &bus, bus_object &object)
{
    while (!object.targets.empty())
        end_subscription(bus, object, bus.objects.at(object.targets.back()));
    while (!object.subscribers.empty()) {
        bus_object &subscriber = bus.objects.at(object.subscribers.back());
        blob_builder blob;
        blob.put_u32(UBUS_ATTR_OBJID, subscriber.id).put_u32(UBUS_ATTR_TARGET, object.id);
        subscriber.owner->sink->send(make_message({0, UBUS_MSG_UNSUBSCRIBE, ++bus.event_seq, 0}, blob.bytes()));
        end_subscription(bus, subscriber, object);
    }
}
