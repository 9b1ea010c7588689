#include "data_methods.h"

#include "at_misc.h"
#include "at_packet.h"
#include "calls.h"
#include "handler.h"
#include "requester.h"
#include "result.h"
#include "uci_access.h"
#include "wanmd.h"

int handle_wanmd_enable(HANDLER_ARGUMENTS)
{
    if (call_waits(ctx, req, msg, CALLER_PATIENCE_MS))
        return UBUS_STATUS_OK;
    begin_connect_watch();
    return reply_result(ctx, req, static_cast<uint32_t>(wanmd_control(1)));
}

int handle_wanmd_disable(HANDLER_ARGUMENTS)
{
    if (call_waits(ctx, req, msg, CALLER_PATIENCE_MS))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, static_cast<uint32_t>(wanmd_control(0)));
}

int handle_get_autoconnect(HANDLER_ARGUMENTS)
{
    uint8_t enabled = 1;
    int result = uci_get_autoconnect(&enabled);
    reply_begin();
    reply_add_u32("result", static_cast<uint32_t>(result));
    if (result == 0)
        reply_add_u32("autoconnect", enabled);
    return reply_send(ctx, req);
}

// For setters whose only argument is a switch: every number but 0 means on.
static int handle_switch(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg,
                         const struct blobmsg_policy (&policy)[1], result_t (*set)(uint8_t))
{
    const auto [field] = parse_arguments(policy, msg);
    if (!field)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, set(blobmsg_get_u32(field) != 0));
}

const struct blobmsg_policy policy_set_autoconnect[] = {{"state", BLOBMSG_TYPE_INT32}};

int handle_set_autoconnect(HANDLER_ARGUMENTS)
{
    return handle_switch(ctx, req, msg, policy_set_autoconnect,
                         [](uint8_t on) { return static_cast<result_t>(uci_set_autoconnect(on)); });
}

const struct blobmsg_policy policy_set_pdp_context_activation[] = {
    {"state", BLOBMSG_TYPE_INT32},
    {"cid", BLOBMSG_TYPE_INT32},
};

int handle_set_pdp_context_activation(HANDLER_ARGUMENTS)
{
    const auto [state, cid] = parse_arguments(policy_set_pdp_context_activation, msg);
    if (!state || !cid)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_set_pdp_context_activation(number_or(cid, 0), blobmsg_get_u32(state) != 0));
}

const struct blobmsg_policy policy_rmnet_call[] = {
    {"action", BLOBMSG_TYPE_INT32},           {"ip type", BLOBMSG_TYPE_INT32}, {"pdp index", BLOBMSG_TYPE_INT32},
    {"cdma profile num", BLOBMSG_TYPE_INT32}, {"apn", BLOBMSG_TYPE_STRING},
};

int handle_rmnet_call(HANDLER_ARGUMENTS)
{
    const auto [action, ip_type, pdp_index, cdma_profile, apn] = parse_arguments(policy_rmnet_call, msg);
    if (!action)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    const RmnetCallRequest call = {
        .action = blobmsg_get_u32(action) != 0,
        .has_ip_type = ip_type != nullptr,
        .ip_type = number_or(ip_type, 0),
        .has_pdp_index = pdp_index != nullptr,
        .pdp_index = number_or(pdp_index, 0),
        .has_cdma_profile = cdma_profile != nullptr,
        .cdma_profile = number_or(cdma_profile, 0),
        .has_apn = apn != nullptr,
        .apn = text_or(apn, ""),
    };
    return reply_result(ctx, req, at_rmnet_call(&call));
}

const struct blobmsg_policy policy_set_5gsa[] = {{"enable", BLOBMSG_TYPE_INT32}};

int handle_set_5gsa(HANDLER_ARGUMENTS)
{
    return handle_switch(ctx, req, msg, policy_set_5gsa, at_set_5gsa);
}

const struct blobmsg_policy policy_set_roaming_enable[] = {{"state", BLOBMSG_TYPE_INT32}};

int handle_set_roaming_enable(HANDLER_ARGUMENTS)
{
    return handle_switch(ctx, req, msg, policy_set_roaming_enable, at_set_roaming_enable);
}

const struct blobmsg_policy policy_set_sms_message_format[] = {{"format", BLOBMSG_TYPE_INT32}};

int handle_set_sms_message_format(HANDLER_ARGUMENTS)
{
    constexpr uint32_t FORMAT_MAX = 1;
    const auto [format] = parse_arguments(policy_set_sms_message_format, msg);
    if (!format || blobmsg_get_u32(format) > FORMAT_MAX)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_set_sms_message_format(blobmsg_get_u32(format)));
}

const struct blobmsg_policy policy_set_pcm_loopback_state[] = {{"state", BLOBMSG_TYPE_STRING}};

int handle_set_pcm_loopback_state(HANDLER_ARGUMENTS)
{
    const auto [state] = parse_arguments(policy_set_pcm_loopback_state, msg);
    if (!state)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_set_pcm_loopback_state(blobmsg_get_string(state)));
}

const struct blobmsg_policy policy_set_fm160_usb_lock[] = {{"locked", BLOBMSG_TYPE_INT32}};

int handle_set_fm160_usb_lock(HANDLER_ARGUMENTS)
{
    return handle_switch(ctx, req, msg, policy_set_fm160_usb_lock, at_set_fm160_usb_lock);
}

int handle_hangup_call(HANDLER_ARGUMENTS)
{
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_hangup_call());
}

static int reply_apn(struct ubus_context *ctx, struct ubus_request_data *req, int32_t cid, const char *no_family)
{
    char apn[64] = "";
    int32_t family = -1;
    result_t result = at_get_current_apn(cid, apn, &family);
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK) {
        reply_add_string("apn", apn);
        reply_add_string("ip", family == 0 ? "IPV4" : family == 2 ? "IPV6" : family == 3 ? "IPV4V6" : no_family);
    }
    return reply_send(ctx, req);
}

int handle_get_current_apn(HANDLER_ARGUMENTS)
{
    return reply_apn(ctx, req, DATA_CONTEXT, "Unavailable");
}

int handle_get_current_ims_apn(HANDLER_ARGUMENTS)
{
    return reply_apn(ctx, req, IMS_CONTEXT, "");
}

int handle_check_connectivity(HANDLER_ARGUMENTS)
{
    uint8_t connected = 0;
    result_t result = at_check_connectivity(&connected);
    reply_begin();
    reply_add_u32("result", result);
    reply_add_bool("connected", result == RESULT_OK && connected);
    return reply_send(ctx, req);
}

int handle_get_pcm_loopback_state(HANDLER_ARGUMENTS)
{
    uint8_t enabled = 0;
    result_t result = at_get_pcm_loopback_state(&enabled);
    reply_begin();
    reply_add_u32("result", result);
    reply_add_bool("enabled", enabled);
    return reply_send(ctx, req);
}
