#include "message_methods.h"

#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "handler.h"
#include "message_store.h"

const struct blobmsg_policy policy_message_index[1] = {{"index", BLOBMSG_TYPE_INT32}};
const struct blobmsg_policy policy_message_index_list[1] = {{"index_list", BLOBMSG_TYPE_ARRAY}};

constexpr uint32_t FAILED = UINT32_MAX; // -1 to clients

static bool index_argument(struct blob_attr *msg, int32_t *index)
{
    const auto [field] = parse_arguments(policy_message_index, msg);
    *index = number_or(field, 0);
    return field;
}

static bool is_index(const struct blob_attr *element)
{
    return blobmsg_type(element) == BLOBMSG_TYPE_INT32 && blobmsg_data_len(element) == sizeof(uint32_t);
}

// Calls `act` with the int32 elements of "index_list", which it may sort; other elements are skipped.
static int handle_index_list(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg,
                             int (*act)(int32_t *indexes, uint32_t count))
{
    const auto [field] = parse_arguments(policy_message_index_list, msg);
    struct blob_attr *element;
    size_t rest;
    uint32_t count = 0, taken = 0;
    if (!field)
        return UBUS_STATUS_INVALID_ARGUMENT;
    blobmsg_for_each_attr(element, field, rest)
    {
        count += is_index(element);
    }
    if (count == 0)
        return reply_result(ctx, req, 0);
    int32_t *indexes = static_cast<int32_t *>(malloc(count * sizeof *indexes));
    if (!indexes)
        return reply_result(ctx, req, FAILED);
    blobmsg_for_each_attr(element, field, rest)
    {
        if (is_index(element))
            indexes[taken++] = number_or(element, 0);
    }
    int result = act(indexes, count);
    free(indexes);
    return reply_result(ctx, req, static_cast<uint32_t>(result));
}

// The C library keeps what was freed for later; the store may have taken megabytes, and the next time of that size may
// be weeks away.
static void give_memory_back()
{
#ifdef __GLIBC__
    (void)malloc_trim(0);
#endif
}

int handle_get_all_messages(HANDLER_ARGUMENTS)
{
    reply_begin();
    int result = list_messages(&g_reply_buf);
    reply_add_u32("result", static_cast<uint32_t>(result));
    return reply_send(ctx, req);
}

int handle_get_message(HANDLER_ARGUMENTS)
{
    int32_t index;
    if (!index_argument(msg, &index))
        return UBUS_STATUS_INVALID_ARGUMENT;
    reply_begin();
    int result = get_message(&g_reply_buf, index);
    reply_add_u32("result", static_cast<uint32_t>(result));
    return reply_send(ctx, req);
}

int handle_read_message(HANDLER_ARGUMENTS)
{
    int32_t index;
    if (!index_argument(msg, &index))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return reply_result(ctx, req, static_cast<uint32_t>(mark_messages_read(&index, 1)));
}

int handle_read_messages(HANDLER_ARGUMENTS)
{
    return handle_index_list(ctx, req, msg,
                             [](int32_t *indexes, uint32_t count) { return mark_messages_read(indexes, count); });
}

int handle_delete_all_messages(HANDLER_ARGUMENTS)
{
    delete_all_messages();
    give_memory_back();
    return reply_result(ctx, req, 0);
}

int handle_delete_message(HANDLER_ARGUMENTS)
{
    int32_t index;
    if (!index_argument(msg, &index))
        return UBUS_STATUS_INVALID_ARGUMENT;
    delete_messages(&index, 1);
    return reply_result(ctx, req, 0);
}

static int cmpfunc(const void *a, const void *b)
{
    int32_t first = *static_cast<const int32_t *>(a);
    int32_t second = *static_cast<const int32_t *>(b);
    return (second > first) - (second < first);
}

static int delete_listed(int32_t *indexes, uint32_t count)
{
    // Highest first: a deletion leaves the positions in front of it as they are.
    qsort(indexes, count, sizeof *indexes, cmpfunc);
    delete_messages(indexes, count);
    give_memory_back();
    return 0;
}

int handle_delete_messages(HANDLER_ARGUMENTS)
{
    return handle_index_list(ctx, req, msg, delete_listed);
}
