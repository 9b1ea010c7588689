#include "network_methods.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "at_cell.h"
#include "at_misc.h"
#include "at_rat.h"
#include "at_text.h"
#include "call_limit.h"
#include "calls.h"
#include "handler.h"
#include "link.h"
#include "log.h"
#include "request.h"
#include "result.h"

int handle_get_operator_info(HANDLER_ARGUMENTS)
{
    OperatorInfo info = {};
    result_t result = at_get_operator_info(&info);
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK) {
        reply_add_u32("mode", info.mode);
        if (info.has_format)
            reply_add_u32("format", info.format);
        if (info.has_oper && info.oper_len)
            reply_add_string("oper", info.oper);
        if (info.has_act)
            reply_add_u32("act", info.act);
    }
    free(info.oper);
    return reply_send(ctx, req);
}

// An optional INT32 argument that the modem's command has one byte for. False when its value is greater.
static bool take_byte(struct blob_attr *field, uint8_t *given, uint8_t *value)
{
    *given = field != nullptr;
    uint32_t number = field ? blobmsg_get_u32(field) : 0;
    *value = static_cast<uint8_t>(number);
    return number <= UINT8_MAX;
}

static int refuse_number(struct ubus_context *ctx, struct ubus_request_data *req, const char *function)
{
    CELMUX_LOG(LOG_ERR, "argument above 255", function);
    return reply_result(ctx, req, RESULT_REFUSED);
}

const struct blobmsg_policy policy_select_operator[] = {
    {"mode", BLOBMSG_TYPE_INT32},
    {"format", BLOBMSG_TYPE_INT32},
    {"oper", BLOBMSG_TYPE_STRING},
    {"act", BLOBMSG_TYPE_INT32},
};

int handle_select_operator(HANDLER_ARGUMENTS)
{
    const auto [mode, format, oper, act] = parse_arguments(policy_select_operator, msg);
    uint8_t has_mode;
    OperatorInfo info = {};
    if (!mode)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!take_byte(mode, &has_mode, &info.mode) || !take_byte(format, &info.has_format, &info.format) ||
        !take_byte(act, &info.has_act, &info.act))
        return refuse_number(ctx, req, "select_operator");
    if (oper) {
        info.has_oper = 1;
        info.oper = blobmsg_get_string(oper);
        info.oper_len = static_cast<uint8_t>(std::min<size_t>(strlen(info.oper), UINT8_MAX));
    }
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_select_operator(&info));
}

const struct blobmsg_policy policy_select_rat[] = {
    {"act", BLOBMSG_TYPE_INT32},
    {"pref1", BLOBMSG_TYPE_INT32},
    {"pref2", BLOBMSG_TYPE_INT32},
};

int handle_select_rat(HANDLER_ARGUMENTS)
{
    const auto [act, pref1, pref2] = parse_arguments(policy_select_rat, msg);
    uint8_t has_act;
    RatSelection selection = {};
    if (!act)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!take_byte(act, &has_act, &selection.act) || !take_byte(pref1, &selection.has_pref1, &selection.pref1) ||
        !take_byte(pref2, &selection.has_pref2, &selection.pref2))
        return refuse_number(ctx, req, "select_rat");
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_select_rat(&selection));
}

const struct blobmsg_policy policy_set_network_mode[] = {
    {"mode", BLOBMSG_TYPE_INT32},
    {"bands", BLOBMSG_TYPE_STRING},
};

int handle_set_network_mode(HANDLER_ARGUMENTS)
{
    const auto [number, bands] = parse_arguments(policy_set_network_mode, msg);
    if (!number || blobmsg_get_u32(number) >= std::size(network_modes))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    const NetworkMode &mode = network_modes[blobmsg_get_u32(number)];
    RatSelection selection = mode.selection;
    selection.bands = text_or(bands, nullptr);
    result_t result = mode.stand_alone == STAND_ALONE_UNCHANGED ? RESULT_OK : at_set_5gsa(mode.stand_alone);
    result |= at_select_rat(&selection);
    return reply_result(ctx, req, result);
}

const struct blobmsg_policy policy_select_rat_and_band[] = {
    {"rat", BLOBMSG_TYPE_INT32},
    {"pref_act1", BLOBMSG_TYPE_INT32},
    {"pref_act2", BLOBMSG_TYPE_INT32},
    {"bands", BLOBMSG_TYPE_STRING},
};

// What makes the arguments inconsistent, or null.
static const char *rat_and_band_fault(const RatAndBand &selection, bool pref_act2_given)
{
    if ((pref_act2_given || selection.bands) && !selection.pref_act1)
        return "preferred act 1 not specified";
    if (selection.bands && !selection.pref_act2)
        return "preferred act 2 not specified";
    if (selection.bands && !*selection.bands)
        return "selected bands must not be empty";
    return nullptr;
}

int handle_select_rat_and_band(HANDLER_ARGUMENTS)
{
    const auto [rat, pref_act1, pref_act2, bands] = parse_arguments(policy_select_rat_and_band, msg);
    if (!rat)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const RatAndBand selection = {number_or(rat, 0), number_or(pref_act1, 0), number_or(pref_act2, 0),
                                  text_or(bands, nullptr)};
    if (const char *fault = rat_and_band_fault(selection, pref_act2)) {
        CELMUX_LOG(LOG_ERR, "%s", "select_rat_and_band", fault);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_select_rat_and_band(&selection));
}

int handle_get_gtccinfo(HANDLER_ARGUMENTS)
{
    constexpr size_t TOO_SHORT = 5;
    char text[512] = "";
    result_t result = at_get_gtccinfo(text);
    reply_begin();
    reply_add_u32("result", result);
    const char *first = "";
    if (result == RESULT_OK) {
        size_t length = strlen(text);
        print_out("get_gtccinfo ==%d   %s==\n", static_cast<int>(length), text);
        if (length > TOO_SHORT) {
            text[strcspn(text, "\r\n")] = '\0';
            print_out("get_gtccinfo ==%s==\n", text);
            first = text;
        }
    }
    reply_add_string("gtccinfo", first);
    return reply_send(ctx, req);
}

int handle_scan_network(HANDLER_ARGUMENTS)
{
    if (!g_scanning.load() && call_waits(ctx, req, msg)) // while one runs, the next is refused at once
        return UBUS_STATUS_OK;
    uint32_t timeout_ms = AT_TIMEOUT_MS;
    int result = limit_to_call(&timeout_ms) ? at_enqueue("AT+COPS=?\r", 0) : -1;
    return reply_result(ctx, req, static_cast<uint32_t>(result));
}

const struct blobmsg_policy policy_at_passthrough[] = {
    {"at", BLOBMSG_TYPE_STRING},
    {"timeout_ms", BLOBMSG_TYPE_INT32},
};

int handle_at_passthrough(HANDLER_ARGUMENTS)
{
    // No other method that needs the modem is served during the wait, and a negative number would mean a wait of weeks.
    constexpr uint32_t LONGEST_MS = 600'000;
    const auto [at, timeout] = parse_arguments(policy_at_passthrough, msg);
    if (!at)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t timeout_ms = std::min(static_cast<uint32_t>(number_or(timeout, AT_TIMEOUT_MS)), LONGEST_MS);
    const std::string_view command = blobmsg_get_string(at);
    const bool sendable = at_one_command(command);
    if (sendable && call_waits(ctx, req, msg, timeout_ms, timeout_ms))
        return UBUS_STATUS_OK;
    char *answer = nullptr;
    int result = -1;
    if (sendable)
        result = request(command.data(), &answer, nullptr, !command.ends_with('\r'), timeout_ms);
    else
        CELMUX_LOG(LOG_ERR, "command holds a line end, Ctrl-Z or ESC", "at_passthrough");
    if (result == 0 && !answer) // cut off by the stop
        result = -1;
    reply_begin();
    reply_add_u32("result", static_cast<uint32_t>(result));
    reply_add_string("resp", result == 0 ? answer : "failure to send at command");
    free(answer);
    return reply_send(ctx, req);
}
