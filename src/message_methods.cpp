#include "message_methods.h"

#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "message_store.h"

const struct blobmsg_policy policy_message_index[1] = {{"index", BLOBMSG_TYPE_INT32}};
const struct blobmsg_policy policy_message_index_list[1] = {{"index_list", BLOBMSG_TYPE_ARRAY}};

constexpr uint32_t FAILED = UINT32_MAX; // -1 to clients

static void log_entry(const char *name)
{
    log_enter(name);
}

static bool index_argument(struct blob_attr *msg, int32_t *index)
{
    struct blob_attr *field;
    parse_arguments(policy_message_index, 1, msg, &field);
    if (!field)
        return false;
    *index = static_cast<int32_t>(blobmsg_get_u32(field));
    return true;
}

// The int32 elements of "index_list", other elements are skipped. Heap memory.
struct IndexList {
    int32_t *indexes = nullptr;
    uint32_t count = 0;

    IndexList() = default;
    IndexList(const IndexList &) = delete;
    IndexList &operator=(const IndexList &) = delete;
    ~IndexList()
    {
        free(indexes);
    }
};

enum class ListArgument { missing, no_memory, taken };

static ListArgument index_list_argument(struct blob_attr *msg, IndexList *list)
{
    struct blob_attr *field, *element;
    size_t rest;
    uint32_t count = 0;
    parse_arguments(policy_message_index_list, 1, msg, &field);
    if (!field)
        return ListArgument::missing;
    blobmsg_for_each_attr(element, field, rest)
    {
        count += blobmsg_type(element) == BLOBMSG_TYPE_INT32 && blobmsg_data_len(element) == sizeof(uint32_t);
    }
    if (count == 0)
        return ListArgument::taken;
    list->indexes = static_cast<int32_t *>(malloc(count * sizeof *list->indexes));
    if (!list->indexes)
        return ListArgument::no_memory;
    blobmsg_for_each_attr(element, field, rest)
    {
        if (blobmsg_type(element) == BLOBMSG_TYPE_INT32 && blobmsg_data_len(element) == sizeof(uint32_t))
            list->indexes[list->count++] = static_cast<int32_t>(blobmsg_get_u32(element));
    }
    return ListArgument::taken;
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
    log_entry("_get_all_messages");
    reply_begin();
    int result = list_messages(&g_reply_buf);
    reply_add_u32("result", static_cast<uint32_t>(result));
    return reply_send(ctx, req);
}

int handle_get_message(HANDLER_ARGUMENTS)
{
    int32_t index;
    log_entry("_get_message");
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
    log_entry("_read_message");
    if (!index_argument(msg, &index))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return reply_result(ctx, req, static_cast<uint32_t>(mark_messages_read(&index, 1)));
}

int handle_read_messages(HANDLER_ARGUMENTS)
{
    IndexList list;
    log_entry("_read_messages");
    ListArgument argument = index_list_argument(msg, &list);
    if (argument == ListArgument::missing)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (argument == ListArgument::no_memory)
        return reply_result(ctx, req, FAILED);
    return reply_result(ctx, req, static_cast<uint32_t>(mark_messages_read(list.indexes, list.count)));
}

int handle_delete_all_messages(HANDLER_ARGUMENTS)
{
    log_entry("_delete_all_messages");
    delete_all_messages();
    give_memory_back();
    return reply_result(ctx, req, 0);
}

int handle_delete_message(HANDLER_ARGUMENTS)
{
    int32_t index;
    log_entry("_delete_message");
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

int handle_delete_messages(HANDLER_ARGUMENTS)
{
    IndexList list;
    log_entry("_delete_messages");
    ListArgument argument = index_list_argument(msg, &list);
    if (argument == ListArgument::missing)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (argument == ListArgument::no_memory)
        return reply_result(ctx, req, FAILED);
    if (list.count > 0) {
        // Highest first: a deletion leaves the positions in front of it as they are.
        qsort(list.indexes, list.count, sizeof *list.indexes, cmpfunc);
        delete_messages(list.indexes, list.count);
        give_memory_back();
    }
    return reply_result(ctx, req, 0);
}
