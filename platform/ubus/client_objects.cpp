#include "client_objects.h"

#include <cstdlib>

#include "client_requests.h"

namespace {

struct lookup_request {
    ubus_request req;
    ubus_lookup_handler_t cb;
    void *priv;
};

bool put_signature(blob_buf *buf, const ubus_object_type *type)
{
    void *list = blob_nest_start(buf, UBUS_ATTR_SIGNATURE);
    if (!list)
        return false;
    for (int i = 0; i < type->n_methods; i++) {
        const ubus_method &method = type->methods[i];
        void *table = blobmsg_open_table(buf, method.name);
        if (!table)
            return false;
        for (int j = 0; j < method.n_policy; j++) {
            bool hidden = method.mask && !(j < static_cast<int>(8 * sizeof method.mask) && (method.mask >> j & 1));
            const blobmsg_policy &argument = method.policy[j];
            if (!hidden && argument.name && blobmsg_add_u32(buf, argument.name, argument.type) < 0)
                return false;
        }
        blobmsg_close_table(buf, table);
    }
    blob_nest_end(buf, list);
    return true;
}

void take_object_ids(ubus_request *req, int, blob_attr *msg)
{
    auto *obj = static_cast<ubus_object *>(req->priv);
    blob_attr *tb[UBUS_ATTR_MAX];
    parse_message(msg, blob_raw_len(msg), tb);
    if (!tb[UBUS_ATTR_OBJID])
        return;
    obj->id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (obj->type && tb[UBUS_ATTR_OBJTYPE])
        obj->type->id = blob_get_u32(tb[UBUS_ATTR_OBJTYPE]);
}

int register_object(ubus_context *ctx, ubus_object *obj)
{
    message_buffer b;
    if (obj->name && !blob_put_string(&b.buf, UBUS_ATTR_OBJPATH, obj->name))
        return UBUS_STATUS_NO_MEMORY;
    if (obj->type && obj->type->id) {
        if (!blob_put_int32(&b.buf, UBUS_ATTR_OBJTYPE, obj->type->id))
            return UBUS_STATUS_NO_MEMORY;
    } else if (obj->type && !put_signature(&b.buf, obj->type)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    ubus_request req = {};
    req.raw_data_cb = take_object_ids;
    req.priv = obj;
    int status = run_request(ctx, &req, UBUS_MSG_ADD_OBJECT, 0, b.buf.head, broker_timeout_ms);
    if (status == UBUS_STATUS_OK && !obj->id)
        status = UBUS_STATUS_NO_DATA;
    return status;
}

int register_pattern(ubus_context *ctx, uint32_t object, const char *pattern)
{
    message_buffer b;
    if (blobmsg_add_string(&b.buf, "pattern", pattern) < 0 || blobmsg_add_u32(&b.buf, "object", object) < 0)
        return UBUS_STATUS_NO_MEMORY;
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", b.buf.head, nullptr, nullptr, broker_timeout_ms);
}

bool is_linked(const ubus_object *obj)
{
    return obj->avl.list.next;
}

void take_lookup_answer(ubus_request *req, int, blob_attr *msg)
{
    lookup_request *lookup = container_of(req, lookup_request, req);
    blob_attr *tb[UBUS_ATTR_MAX];
    parse_message(msg, blob_raw_len(msg), tb);
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_OBJPATH])
        return;
    ubus_object_data obj = {};
    obj.id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    obj.type_id = tb[UBUS_ATTR_OBJTYPE] ? blob_get_u32(tb[UBUS_ATTR_OBJTYPE]) : 0;
    obj.path = blob_get_string(tb[UBUS_ATTR_OBJPATH]);
    obj.signature = tb[UBUS_ATTR_SIGNATURE];
    if (lookup->cb)
        lookup->cb(req->ctx, &obj, lookup->priv);
}

void take_id(ubus_context *, ubus_object_data *obj, void *priv)
{
    *static_cast<uint32_t *>(priv) = obj->id;
}

int deliver_event(ubus_context *ctx, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *msg)
{
    ubus_event_handler *handler = container_of(obj, ubus_event_handler, obj);
    if (handler->cb)
        handler->cb(ctx, handler, method, msg);
    return UBUS_STATUS_OK;
}

const ubus_method event_method = UBUS_METHOD_NOARG(nullptr, deliver_event);

} // namespace

int register_all(ubus_context *ctx)
{
    int first_failure = UBUS_STATUS_OK;
    ubus_object *obj;
    list_for_each_entry(obj, &ctx->objects.list_head, avl.list)
    {
        obj->id = 0;
        if (obj->type)
            obj->type->id = 0;
    }
    list_for_each_entry(obj, &ctx->objects.list_head, avl.list)
    {
        int status = register_object(ctx, obj);
        if (!first_failure)
            first_failure = status;
    }
    return first_failure;
}

void forget_objects(ubus_context *ctx)
{
    while (!list_empty(&ctx->objects.list_head)) {
        auto *obj = list_first_entry(&ctx->objects.list_head, ubus_object, avl.list);
        list_del(&obj->avl.list);
        obj->id = 0;
        if (obj->type)
            obj->type->id = 0;
    }
}

extern "C" {

int ubus_add_object(ubus_context *ctx, ubus_object *obj)
{
    if (is_linked(obj))
        return UBUS_STATUS_INVALID_ARGUMENT;
    obj->id = 0;
    int status = register_object(ctx, obj);
    if (status == UBUS_STATUS_OK)
        list_add_tail(&obj->avl.list, &ctx->objects.list_head);
    else
        obj->id = 0;
    return status;
}

int ubus_remove_object(ubus_context *ctx, ubus_object *obj)
{
    if (!is_linked(obj))
        return UBUS_STATUS_NOT_FOUND;
    list_del(&obj->avl.list);
    message_buffer b;
    blob_put_int32(&b.buf, UBUS_ATTR_OBJID, obj->id);
    obj->id = 0;
    // The broker forgets a type with its last object, and this library does not know of the others.
    if (obj->type)
        obj->type->id = 0;
    ubus_request req = {};
    return run_request(ctx, &req, UBUS_MSG_REMOVE_OBJECT, 0, b.buf.head, broker_timeout_ms);
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
    message_buffer b;
    if (path && !blob_put_string(&b.buf, UBUS_ATTR_OBJPATH, path))
        return UBUS_STATUS_NO_MEMORY;
    lookup_request lookup = {};
    lookup.req.raw_data_cb = take_lookup_answer;
    lookup.cb = cb;
    lookup.priv = priv;
    return run_request(ctx, &lookup.req, UBUS_MSG_LOOKUP, 0, b.buf.head, broker_timeout_ms);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id)
{
    return ubus_lookup(ctx, path, take_id, id);
}

int ubus_send_event(ubus_context *ctx, const char *id, blob_attr *data)
{
    message_buffer b;
    unsigned int size = data ? static_cast<unsigned int>(blob_len(data)) : 0;
    if (blobmsg_add_string(&b.buf, "id", id) < 0 ||
        blobmsg_add_field(&b.buf, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : nullptr, size) < 0)
        return UBUS_STATUS_NO_MEMORY;
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", b.buf.head, nullptr, nullptr, broker_timeout_ms);
}

int ubus_register_event_handler(ubus_context *ctx, ubus_event_handler *ev, const char *pattern)
{
    int status = UBUS_STATUS_OK;
    if (!is_linked(&ev->obj)) {
        ev->obj.methods = &event_method;
        ev->obj.n_methods = 1;
        status = ubus_add_object(ctx, &ev->obj);
    }
    return status == UBUS_STATUS_OK ? register_pattern(ctx, ev->obj.id, pattern) : status;
}
}
