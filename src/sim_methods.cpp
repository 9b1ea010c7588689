#include "sim_methods.h"

#include "at_sim.h"
#include "at_text.h"

int handle_get_sim_lock_status(HANDLER_ARGUMENTS)
{
    uint8_t enabled = 0;
    result_t result = at_get_sim_lock_status(&enabled);
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK)
        reply_add_bool("enabled", enabled);
    return reply_send(ctx, req);
}

enum { SET_SIM_LOCK_STATUS_PIN, SET_SIM_LOCK_STATUS_ENABLED, SET_SIM_LOCK_STATUS_COUNT };
const struct blobmsg_policy policy_set_sim_lock_status[SET_SIM_LOCK_STATUS_COUNT] = {
    {"pin", BLOBMSG_TYPE_STRING},
    {"enabled", BLOBMSG_TYPE_INT32},
};

int handle_set_sim_lock_status(HANDLER_ARGUMENTS)
{
    struct blob_attr *fields[SET_SIM_LOCK_STATUS_COUNT];
    parse_arguments(policy_set_sim_lock_status, SET_SIM_LOCK_STATUS_COUNT, msg, fields);
    if (!fields[SET_SIM_LOCK_STATUS_PIN] || !fields[SET_SIM_LOCK_STATUS_ENABLED])
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    result_t result = at_set_sim_lock_status(blobmsg_get_string(fields[SET_SIM_LOCK_STATUS_PIN]),
                                             blobmsg_get_u32(fields[SET_SIM_LOCK_STATUS_ENABLED]) != 0);
    return reply_result(ctx, req, result);
}

int handle_get_sim_remaining_attempts(HANDLER_ARGUMENTS)
{
    int32_t pin = -1, puk = -1;
    result_t result = at_get_sim_remaining_attempts(&pin, &puk);
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK && pin != -1 && puk != -1) {
        reply_add_u32("pin", static_cast<uint32_t>(pin));
        reply_add_u32("puk", static_cast<uint32_t>(puk));
    }
    return reply_send(ctx, req);
}

enum { GET_REMAINING_PIN_RETRIES_SEL_CODE, GET_REMAINING_PIN_RETRIES_COUNT };
const struct blobmsg_policy policy_get_remaining_pin_retries[GET_REMAINING_PIN_RETRIES_COUNT] = {
    {"sel_code", BLOBMSG_TYPE_STRING},
};

int handle_get_remaining_pin_retries(HANDLER_ARGUMENTS)
{
    static constexpr struct {
        const char *retries;
        const char *default_retries;
    } names[PIN_CODES] = {
        {"pin1_retries", "pin1_default_retries"},
        {"puk1_retries", "puk1_default_retries"},
        {"pin2_retries", "pin2_default_retries"},
        {"puk2_retries", "puk2_default_retries"},
    };
    struct blob_attr *fields[GET_REMAINING_PIN_RETRIES_COUNT];
    parse_arguments(policy_get_remaining_pin_retries, GET_REMAINING_PIN_RETRIES_COUNT, msg, fields);
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    struct blob_attr *selection = fields[GET_REMAINING_PIN_RETRIES_SEL_CODE];
    PinRetries retries = {};
    result_t result = at_get_remaining_pin_retries(selection ? blobmsg_get_string(selection) : nullptr, &retries);
    reply_begin();
    reply_add_u32("result", result);
    for (unsigned i = 0; result == RESULT_OK && i < PIN_CODES; i++) {
        if (!retries.codes[i].present)
            continue;
        reply_add_u32(names[i].retries, retries.codes[i].retries);
        if (retries.codes[i].default_retries != BYTE_ABSENT)
            reply_add_u32(names[i].default_retries, retries.codes[i].default_retries);
    }
    return reply_send(ctx, req);
}

enum { UNLOCK_SIM_PIN, UNLOCK_SIM_PUK, UNLOCK_SIM_COUNT };
const struct blobmsg_policy policy_unlock_sim[UNLOCK_SIM_COUNT] = {
    {"pin", BLOBMSG_TYPE_STRING},
    {"puk", BLOBMSG_TYPE_STRING},
};

int handle_unlock_sim(HANDLER_ARGUMENTS)
{
    struct blob_attr *fields[UNLOCK_SIM_COUNT];
    parse_arguments(policy_unlock_sim, UNLOCK_SIM_COUNT, msg, fields);
    if (!fields[UNLOCK_SIM_PIN])
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    const char *puk = fields[UNLOCK_SIM_PUK] ? blobmsg_get_string(fields[UNLOCK_SIM_PUK]) : "";
    return reply_result(ctx, req, at_unlock_sim(blobmsg_get_string(fields[UNLOCK_SIM_PIN]), *puk ? puk : nullptr));
}

enum { CHANGE_SIM_PIN_PIN, CHANGE_SIM_PIN_NEW_PIN, CHANGE_SIM_PIN_COUNT };
const struct blobmsg_policy policy_change_sim_pin[CHANGE_SIM_PIN_COUNT] = {
    {"pin", BLOBMSG_TYPE_STRING},
    {"new_pin", BLOBMSG_TYPE_STRING},
};

int handle_change_sim_pin(HANDLER_ARGUMENTS)
{
    struct blob_attr *fields[CHANGE_SIM_PIN_COUNT];
    parse_arguments(policy_change_sim_pin, CHANGE_SIM_PIN_COUNT, msg, fields);
    if (!fields[CHANGE_SIM_PIN_PIN] || !fields[CHANGE_SIM_PIN_NEW_PIN])
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req,
                        at_change_sim_pin(blobmsg_get_string(fields[CHANGE_SIM_PIN_PIN]),
                                          blobmsg_get_string(fields[CHANGE_SIM_PIN_NEW_PIN])));
}
