#include "profile_methods.h"

#include "at_packet.h"
#include "calls.h"
#include "handler.h"
#include "log.h"
#include "profile_store.h"
#include "waiting.h"

static const char *text_or_empty(const char *text)
{
    return text ? text : "";
}

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
    const auto [ip, apn, username, password, auth] = parse_arguments(policy_set_default_apn, msg);
    if (apn && ip && blobmsg_get_u32(ip) > IP_FAMILY_MAX)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg, CALLER_PATIENCE_MS))
        return UBUS_STATUS_OK;
    int result;
    if (!apn) {
        result = apply_operator_default();
    } else {
        const ApnProfile record = {
            .ip_family = number_or(ip, 0),
            .apn = text_or(apn, nullptr),
            .name = nullptr,
            .username = text_or(username, nullptr),
            .password = text_or(password, nullptr),
            .auth = number_or(auth, 0),
            .ims = 0,
        };
        result = apply_profile(DATA_CONTEXT, &record);
    }
    (void)sleep_while_running(SETTLE_MS); // replies all the same when the daemon stops
    return reply_result(ctx, req, static_cast<uint32_t>(result));
}

const struct blobmsg_policy policy_select_profile[] = {{"id", BLOBMSG_TYPE_INT32}};

int handle_select_profile(HANDLER_ARGUMENTS)
{
    const auto [id] = parse_arguments(policy_select_profile, msg);
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

const struct blobmsg_policy policy_add_profile[] = {
    {"ip", BLOBMSG_TYPE_INT32},        {"apn", BLOBMSG_TYPE_STRING},      {"name", BLOBMSG_TYPE_STRING},
    {"username", BLOBMSG_TYPE_STRING}, {"password", BLOBMSG_TYPE_STRING}, {"auth", BLOBMSG_TYPE_INT32},
};

int handle_add_profile(HANDLER_ARGUMENTS)
{
    const auto [ip, apn, name, username, password, auth] = parse_arguments(policy_add_profile, msg);
    if (!ip || !apn)
        return UBUS_STATUS_INVALID_ARGUMENT;
    ApnProfile record = {};
    record.ip_family = number_or(ip, 0);
    record.apn = text_or(apn, nullptr);
    record.name = text_or(name, nullptr);
    if (username && password && auth) {
        record.username = text_or(username, nullptr);
        record.password = text_or(password, nullptr);
        record.auth = number_or(auth, 0);
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
    const auto [id] = parse_arguments(policy_get_profile, msg);
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
    const auto [id] = parse_arguments(policy_delete_profile, msg);
    return reply_result(ctx, req, static_cast<uint32_t>(delete_profile_section(number_or(id, ALL_PROFILES))));
}

const struct blobmsg_policy policy_modify_profile[] = {
    {"ip", BLOBMSG_TYPE_INT32},        {"apn", BLOBMSG_TYPE_STRING},      {"name", BLOBMSG_TYPE_STRING},
    {"username", BLOBMSG_TYPE_STRING}, {"password", BLOBMSG_TYPE_STRING}, {"auth", BLOBMSG_TYPE_INT32},
    {"id", BLOBMSG_TYPE_INT32},
};

int handle_modify_profile(HANDLER_ARGUMENTS)
{
    const auto [ip, apn, name, username, password, auth, id] = parse_arguments(policy_modify_profile, msg);
    if (!id || !(ip || apn || name || username || password || auth))
        return UBUS_STATUS_INVALID_ARGUMENT;
    const ApnProfile record = {
        .ip_family = number_or(ip, NOT_GIVEN),
        .apn = text_or(apn, nullptr),
        .name = text_or(name, nullptr),
        .username = text_or(username, nullptr),
        .password = text_or(password, nullptr),
        .auth = number_or(auth, NOT_GIVEN),
        .ims = 0,
    };
    return reply_result(ctx, req, static_cast<uint32_t>(modify_profile_section(number_or(id, 0), &record)));
}
