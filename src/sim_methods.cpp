#include "sim_methods.h"

#include "at_sim.h"
#include "at_text.h"
#include "calls.h"
#include "handler.h"
#include "result.h"

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

const struct blobmsg_policy policy_set_sim_lock_status[] = {
    {"pin", BLOBMSG_TYPE_STRING},
    {"enabled", BLOBMSG_TYPE_INT32},
};

int handle_set_sim_lock_status(HANDLER_ARGUMENTS)
{
    const auto [pin, enabled] = parse_arguments(policy_set_sim_lock_status, msg);
    if (!pin || !enabled)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_set_sim_lock_status(blobmsg_get_string(pin), blobmsg_get_u32(enabled) != 0));
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

const struct blobmsg_policy policy_get_remaining_pin_retries[] = {{"sel_code", BLOBMSG_TYPE_STRING}};

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
    const auto [selection] = parse_arguments(policy_get_remaining_pin_retries, msg);
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    PinRetries retries = {};
    result_t result = at_get_remaining_pin_retries(text_or(selection, nullptr), &retries);
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

const struct blobmsg_policy policy_unlock_sim[] = {
    {"pin", BLOBMSG_TYPE_STRING},
    {"puk", BLOBMSG_TYPE_STRING},
};

int handle_unlock_sim(HANDLER_ARGUMENTS)
{
    const auto [pin, puk] = parse_arguments(policy_unlock_sim, msg);
    if (!pin)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    const char *given_puk = text_or(puk, "");
    return reply_result(ctx, req, at_unlock_sim(blobmsg_get_string(pin), *given_puk ? given_puk : nullptr));
}

const struct blobmsg_policy policy_change_sim_pin[] = {
    {"pin", BLOBMSG_TYPE_STRING},
    {"new_pin", BLOBMSG_TYPE_STRING},
};

int handle_change_sim_pin(HANDLER_ARGUMENTS)
{
    const auto [pin, new_pin] = parse_arguments(policy_change_sim_pin, msg);
    if (!pin || !new_pin)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_change_sim_pin(blobmsg_get_string(pin), blobmsg_get_string(new_pin)));
}
