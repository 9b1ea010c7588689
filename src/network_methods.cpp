#include "network_methods.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "at_cell.h"
#include "at_misc.h"
#include "at_rat.h"
#include "at_text.h"
#include "call_limit.h"
#include "request.h"

int handle_get_operator_info(HANDLER_ARGUMENTS)
{
    log_enter("get_operator_info");
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

enum { SELECT_OPERATOR_MODE, SELECT_OPERATOR_FORMAT, SELECT_OPERATOR_OPER, SELECT_OPERATOR_ACT, SELECT_OPERATOR_COUNT };
const struct blobmsg_policy policy_select_operator[SELECT_OPERATOR_COUNT] = {
    {"mode", BLOBMSG_TYPE_INT32},
    {"format", BLOBMSG_TYPE_INT32},
    {"oper", BLOBMSG_TYPE_STRING},
    {"act", BLOBMSG_TYPE_INT32},
};

int handle_select_operator(HANDLER_ARGUMENTS)
{
    log_enter("select_operator");
    struct blob_attr *fields[SELECT_OPERATOR_COUNT];
    parse_arguments(policy_select_operator, SELECT_OPERATOR_COUNT, msg, fields);
    uint8_t has_mode;
    OperatorInfo info = {};
    bool in_range = take_byte(fields[SELECT_OPERATOR_MODE], &has_mode, &info.mode);
    if (!has_mode)
        return UBUS_STATUS_INVALID_ARGUMENT;
    in_range &= take_byte(fields[SELECT_OPERATOR_FORMAT], &info.has_format, &info.format);
    in_range &= take_byte(fields[SELECT_OPERATOR_ACT], &info.has_act, &info.act);
    if (!in_range)
        return refuse_number(ctx, req, "select_operator");
    if (fields[SELECT_OPERATOR_OPER]) {
        info.has_oper = 1;
        info.oper = blobmsg_get_string(fields[SELECT_OPERATOR_OPER]);
        info.oper_len = static_cast<uint8_t>(std::min<size_t>(strlen(info.oper), UINT8_MAX));
    }
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_select_operator(&info));
}

enum { SELECT_RAT_ACT, SELECT_RAT_PREF1, SELECT_RAT_PREF2, SELECT_RAT_COUNT };
const struct blobmsg_policy policy_select_rat[SELECT_RAT_COUNT] = {
    {"act", BLOBMSG_TYPE_INT32},
    {"pref1", BLOBMSG_TYPE_INT32},
    {"pref2", BLOBMSG_TYPE_INT32},
};

int handle_select_rat(HANDLER_ARGUMENTS)
{
    log_enter("select_rat");
    struct blob_attr *fields[SELECT_RAT_COUNT];
    parse_arguments(policy_select_rat, SELECT_RAT_COUNT, msg, fields);
    uint8_t has_act;
    RatSelection selection = {};
    bool in_range = take_byte(fields[SELECT_RAT_ACT], &has_act, &selection.act);
    if (!has_act)
        return UBUS_STATUS_INVALID_ARGUMENT;
    in_range &= take_byte(fields[SELECT_RAT_PREF1], &selection.has_pref1, &selection.pref1);
    in_range &= take_byte(fields[SELECT_RAT_PREF2], &selection.has_pref2, &selection.pref2);
    if (!in_range)
        return refuse_number(ctx, req, "select_rat");
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    return reply_result(ctx, req, at_select_rat(&selection));
}

constexpr uint8_t SA_UNCHANGED = 2;
constexpr struct {
    RatSelection selection;
    uint8_t stand_alone; // 5G stand-alone off, on or SA_UNCHANGED
} network_modes[] = {
    {{.act = 20, .has_pref1 = 1, .pref1 = 6, .has_pref2 = 1, .pref2 = 3, .bands = nullptr}, 1},
    {{.act = 20, .has_pref1 = 1, .pref1 = 6, .has_pref2 = 1, .pref2 = 3, .bands = nullptr}, 0},
    {{.act = 14, .has_pref1 = 0, .pref1 = 0, .has_pref2 = 0, .pref2 = 0, .bands = nullptr}, 1},
    {{.act = 2, .has_pref1 = 0, .pref1 = 0, .has_pref2 = 0, .pref2 = 0, .bands = nullptr}, SA_UNCHANGED},
    {{.act = 1, .has_pref1 = 0, .pref1 = 0, .has_pref2 = 0, .pref2 = 0, .bands = nullptr}, SA_UNCHANGED},
    {{.act = 17, .has_pref1 = 1, .pref1 = 6, .has_pref2 = 0, .pref2 = 0, .bands = nullptr}, 1},
    {{.act = 17, .has_pref1 = 1, .pref1 = 6, .has_pref2 = 0, .pref2 = 0, .bands = nullptr}, 0},
};

enum { SET_NETWORK_MODE_MODE, SET_NETWORK_MODE_BANDS, SET_NETWORK_MODE_COUNT };
const struct blobmsg_policy policy_set_network_mode[SET_NETWORK_MODE_COUNT] = {
    {"mode", BLOBMSG_TYPE_INT32},
    {"bands", BLOBMSG_TYPE_STRING},
};

int handle_set_network_mode(HANDLER_ARGUMENTS)
{
    log_enter("set_network_mode");
    struct blob_attr *fields[SET_NETWORK_MODE_COUNT];
    parse_arguments(policy_set_network_mode, SET_NETWORK_MODE_COUNT, msg, fields);
    if (!fields[SET_NETWORK_MODE_MODE])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t mode = blobmsg_get_u32(fields[SET_NETWORK_MODE_MODE]);
    if (mode >= std::size(network_modes))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (call_waits(ctx, req, msg))
        return UBUS_STATUS_OK;
    RatSelection selection = network_modes[mode].selection;
    if (fields[SET_NETWORK_MODE_BANDS])
        selection.bands = blobmsg_get_string(fields[SET_NETWORK_MODE_BANDS]);
    result_t result = RESULT_OK;
    if (network_modes[mode].stand_alone != SA_UNCHANGED)
        result = at_set_5gsa(network_modes[mode].stand_alone);
    result |= at_select_rat(&selection);
    return reply_result(ctx, req, result);
}

enum {
    SELECT_RAT_AND_BAND_RAT,
    SELECT_RAT_AND_BAND_PREF_ACT1,
    SELECT_RAT_AND_BAND_PREF_ACT2,
    SELECT_RAT_AND_BAND_BANDS,
    SELECT_RAT_AND_BAND_COUNT
};
const struct blobmsg_policy policy_select_rat_and_band[SELECT_RAT_AND_BAND_COUNT] = {
    {"rat", BLOBMSG_TYPE_INT32},
    {"pref_act1", BLOBMSG_TYPE_INT32},
    {"pref_act2", BLOBMSG_TYPE_INT32},
    {"bands", BLOBMSG_TYPE_STRING},
};

// What makes the arguments inconsistent, or null.
static const char *take_rat_and_band(struct blob_attr *const fields[], RatAndBand *selection)
{
    selection->rat = static_cast<int32_t>(blobmsg_get_u32(fields[SELECT_RAT_AND_BAND_RAT]));
    if (fields[SELECT_RAT_AND_BAND_PREF_ACT1])
        selection->pref_act1 = static_cast<int32_t>(blobmsg_get_u32(fields[SELECT_RAT_AND_BAND_PREF_ACT1]));
    if (fields[SELECT_RAT_AND_BAND_PREF_ACT2]) {
        if (!selection->pref_act1)
            return "preferred act 1 not specified";
        selection->pref_act2 = static_cast<int32_t>(blobmsg_get_u32(fields[SELECT_RAT_AND_BAND_PREF_ACT2]));
    }
    if (fields[SELECT_RAT_AND_BAND_BANDS]) {
        if (!selection->pref_act1)
            return "preferred act 1 not specified";
        if (!selection->pref_act2)
            return "preferred act 2 not specified";
        selection->bands = blobmsg_get_string(fields[SELECT_RAT_AND_BAND_BANDS]);
        if (!*selection->bands)
            return "selected bands must not be empty";
    }
    return nullptr;
}

int handle_select_rat_and_band(HANDLER_ARGUMENTS)
{
    log_enter("select_rat_and_band");
    struct blob_attr *fields[SELECT_RAT_AND_BAND_COUNT];
    parse_arguments(policy_select_rat_and_band, SELECT_RAT_AND_BAND_COUNT, msg, fields);
    if (!fields[SELECT_RAT_AND_BAND_RAT])
        return UBUS_STATUS_INVALID_ARGUMENT;
    RatAndBand selection = {};
    const char *fault = take_rat_and_band(fields, &selection);
    if (fault) {
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
    log_enter("get_gtccinfo");
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
    log_enter("scan_network");
    if (!g_scanning.load() && call_waits(ctx, req, msg)) // while one runs, the next is refused at once
        return UBUS_STATUS_OK;
    uint32_t timeout_ms = AT_TIMEOUT_MS;
    int result = limit_to_call(&timeout_ms) ? at_enqueue("AT+COPS=?\r", 0) : -1;
    return reply_result(ctx, req, static_cast<uint32_t>(result));
}

enum { AT_PASSTHROUGH_AT, AT_PASSTHROUGH_TIMEOUT_MS, AT_PASSTHROUGH_COUNT };
const struct blobmsg_policy policy_at_passthrough[AT_PASSTHROUGH_COUNT] = {
    {"at", BLOBMSG_TYPE_STRING},
    {"timeout_ms", BLOBMSG_TYPE_INT32},
};

int handle_at_passthrough(HANDLER_ARGUMENTS)
{
    // No other method that needs the modem is served meanwhile, and a negative number would mean weeks.
    constexpr uint32_t LONGEST_MS = 600'000;
    log_enter("at_passthrough");
    struct blob_attr *fields[AT_PASSTHROUGH_COUNT];
    parse_arguments(policy_at_passthrough, AT_PASSTHROUGH_COUNT, msg, fields);
    if (!fields[AT_PASSTHROUGH_AT])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t timeout_ms = AT_TIMEOUT_MS;
    if (fields[AT_PASSTHROUGH_TIMEOUT_MS])
        timeout_ms = std::min(blobmsg_get_u32(fields[AT_PASSTHROUGH_TIMEOUT_MS]), LONGEST_MS);
    const std::string_view command = blobmsg_get_string(fields[AT_PASSTHROUGH_AT]);
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
