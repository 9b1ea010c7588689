#include "profile_methods.h"

#include "profile_store.h"
#include "waiting.h"

constexpr int32_t DATA_CONTEXT = 1;

static int32_t number_or(struct blob_attr *field, int32_t absent)
{
    return field ? static_cast<int32_t>(blobmsg_get_u32(field)) : absent;
}

// Points into the message.
static const char *text_or_none(struct blob_attr *field)
{
    return field ? blobmsg_get_string(field) : nullptr;
}

static const char *text_or_empty(const char *text)
{
    return text ? text : "";
}

enum { DEFAULT_IP, DEFAULT_APN, DEFAULT_USERNAME, DEFAULT_PASSWORD, DEFAULT_AUTH, DEFAULT_FIELDS };

const struct blobmsg_policy policy_set_default_apn[] = {
    {"ip", BLOBMSG_TYPE_INT32},        {"apn", BLOBMSG_TYPE_STRING}, {"username", BLOBMSG_TYPE_STRING},
    {"password", BLOBMSG_TYPE_STRING}, {"auth", BLOBMSG_TYPE_INT32},
};

static int apply_operator_default()
{
    ApnProfile record = {};
    print_out("set default profile to default state");
    const bool loaded = load_default_profile(&record, "profile") == 0;
    int result = apply_profile(DATA_CONTEXT, loaded ? &record : nullptr);
    free_profile(&record);
    return result;
}

int handle_set_default_apn(HANDLER_ARGUMENTS)
{
    constexpr uint32_t IP_FAMILY_MAX = 3;
    constexpr uint32_t SETTLE_MS = 1000;
    struct blob_attr *fields[DEFAULT_FIELDS];
    parse_arguments(policy_set_default_apn, DEFAULT_FIELDS, msg, fields);
    if (fields[DEFAULT_APN] && fields[DEFAULT_IP] && blobmsg_get_u32(fields[DEFAULT_IP]) > IP_FAMILY_MAX)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg, CALLER_PATIENCE_MS))
        return UBUS_STATUS_OK;
    int result;
    if (!fields[DEFAULT_APN]) {
        result = apply_operator_default();
    } else {
        ApnProfile record = {};
        record.ip_family = number_or(fields[DEFAULT_IP], 0);
        record.apn = text_or_none(fields[DEFAULT_APN]);
        record.username = text_or_none(fields[DEFAULT_USERNAME]);
        record.password = text_or_none(fields[DEFAULT_PASSWORD]);
        record.auth = number_or(fields[DEFAULT_AUTH], 0);
        result = apply_profile(DATA_CONTEXT, &record);
    }
    (void)sleep_while_running(SETTLE_MS); // replies all the same when the daemon stops
    return reply_result(ctx, req, static_cast<uint32_t>(result));
}

const struct blobmsg_policy policy_select_profile[] = {{"id", BLOBMSG_TYPE_INT32}};

int handle_select_profile(HANDLER_ARGUMENTS)
{
    struct blob_attr *id;
    parse_arguments(policy_select_profile, 1, msg, &id);
    if (!id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg, CALLER_PATIENCE_MS))
        return UBUS_STATUS_OK;
    ApnProfile record = {};
    int result = read_profile(number_or(id, 0), &record);
    int applied = apply_profile(DATA_CONTEXT, &record); // also when the read failed: the context is then emptied
    free_profile(&record);
    return reply_result(ctx, req, static_cast<uint32_t>(result ? result : applied));
}

enum { ADD_IP, ADD_APN, ADD_NAME, ADD_USERNAME, ADD_PASSWORD, ADD_AUTH, ADD_FIELDS };

const struct blobmsg_policy policy_add_profile[] = {
    {"ip", BLOBMSG_TYPE_INT32},        {"apn", BLOBMSG_TYPE_STRING},      {"name", BLOBMSG_TYPE_STRING},
    {"username", BLOBMSG_TYPE_STRING}, {"password", BLOBMSG_TYPE_STRING}, {"auth", BLOBMSG_TYPE_INT32},
};

int handle_add_profile(HANDLER_ARGUMENTS)
{
    struct blob_attr *fields[ADD_FIELDS];
    parse_arguments(policy_add_profile, ADD_FIELDS, msg, fields);
    if (!fields[ADD_IP] || !fields[ADD_APN])
        return UBUS_STATUS_INVALID_ARGUMENT;
    ApnProfile record = {};
    record.ip_family = number_or(fields[ADD_IP], 0);
    record.apn = text_or_none(fields[ADD_APN]);
    record.name = text_or_none(fields[ADD_NAME]);
    if (fields[ADD_USERNAME] && fields[ADD_PASSWORD] && fields[ADD_AUTH]) {
        record.username = text_or_none(fields[ADD_USERNAME]);
        record.password = text_or_none(fields[ADD_PASSWORD]);
        record.auth = number_or(fields[ADD_AUTH], 0);
    }
    return reply_result(ctx, req, static_cast<uint32_t>(add_profile_section(&record)));
}

static void reply_add_profile(const ApnProfile &record)
{
    reply_add_u32("ip_family", static_cast<uint32_t>(record.ip_family));
    reply_add_string("apn", text_or_empty(record.apn));
    reply_add_string("name", text_or_empty(record.name));
    reply_add_string("username", text_or_empty(record.username));
    reply_add_string("password", text_or_empty(record.password));
    reply_add_u32("auth", static_cast<uint32_t>(record.auth));
}

int handle_get_profile_list(HANDLER_ARGUMENTS)
{
    ApnProfile *records = nullptr;
    uint32_t count = 0;
    int result = list_profiles(&records, &count);
    reply_begin();
    reply_add_u32("result", static_cast<uint32_t>(result));
    if (result == 0) {
        void *array = blobmsg_open_array(&g_reply_buf, "profiles");
        for (uint32_t i = 0; i < count; i++) {
            void *table = blobmsg_open_table(&g_reply_buf, "profile");
            reply_add_profile(records[i]);
            blobmsg_close_table(&g_reply_buf, table);
        }
        blobmsg_close_array(&g_reply_buf, array);
        free_profiles(records, count);
    }
    return reply_send(ctx, req);
}

const struct blobmsg_policy policy_get_profile[] = {{"id", BLOBMSG_TYPE_INT32}};

int handle_get_profile(HANDLER_ARGUMENTS)
{
    struct blob_attr *id;
    parse_arguments(policy_get_profile, 1, msg, &id);
    if (!id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    ApnProfile record = {};
    int result = read_profile(number_or(id, 0), &record);
    reply_begin();
    reply_add_u32("result", static_cast<uint32_t>(result));
    if (result == 0)
        reply_add_profile(record);
    free_profile(&record);
    return reply_send(ctx, req);
}

const struct blobmsg_policy policy_delete_profile[] = {{"id", BLOBMSG_TYPE_INT32}};

int handle_delete_profile(HANDLER_ARGUMENTS)
{
    struct blob_attr *id;
    parse_arguments(policy_delete_profile, 1, msg, &id);
    return reply_result(ctx, req, static_cast<uint32_t>(delete_profile_section(number_or(id, ALL_PROFILES))));
}

enum { MODIFY_IP, MODIFY_APN, MODIFY_NAME, MODIFY_USERNAME, MODIFY_PASSWORD, MODIFY_AUTH, MODIFY_ID, MODIFY_FIELDS };

const struct blobmsg_policy policy_modify_profile[] = {
    {"ip", BLOBMSG_TYPE_INT32},        {"apn", BLOBMSG_TYPE_STRING},      {"name", BLOBMSG_TYPE_STRING},
    {"username", BLOBMSG_TYPE_STRING}, {"password", BLOBMSG_TYPE_STRING}, {"auth", BLOBMSG_TYPE_INT32},
    {"id", BLOBMSG_TYPE_INT32},
};

int handle_modify_profile(HANDLER_ARGUMENTS)
{
    struct blob_attr *fields[MODIFY_FIELDS];
    parse_arguments(policy_modify_profile, MODIFY_FIELDS, msg, fields);
    bool anything = false;
    for (int i = MODIFY_IP; i < MODIFY_ID; i++)
        anything = anything || fields[i];
    if (!fields[MODIFY_ID] || !anything)
        return UBUS_STATUS_INVALID_ARGUMENT;
    ApnProfile record = {};
    record.ip_family = number_or(fields[MODIFY_IP], NOT_GIVEN);
    record.apn = text_or_none(fields[MODIFY_APN]);
    record.name = text_or_none(fields[MODIFY_NAME]);
    record.username = text_or_none(fields[MODIFY_USERNAME]);
    record.password = text_or_none(fields[MODIFY_PASSWORD]);
    record.auth = number_or(fields[MODIFY_AUTH], NOT_GIVEN);
    return reply_result(ctx, req,
                        static_cast<uint32_t>(modify_profile_section(number_or(fields[MODIFY_ID], 0), &record)));
}
