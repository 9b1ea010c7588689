#include "at_packet.h"

#include <cctype>
#include <cstring>

#include "apn_profile.h"
#include "at_text.h"
#include "log.h"
#include "result.h"
#include "shell.h"
#include "waiting.h"
#include "wanmd.h"

constexpr int32_t FAMILY_IPV4 = 0;
constexpr int32_t FAMILY_IPV6 = 2;
constexpr int32_t FAMILY_IPV4V6 = 3;
constexpr const char *CONTEXT_MARKER = "+CGDCONT:";
constexpr const char *CONTEXT_QUERY = "AT+CGDCONT?\r";

static std::string_view text_or_empty(const char *text)
{
    return text ? text : "";
}

result_t at_set_pdp_context_activation(int32_t cid, uint8_t state)
{
    AtCommand command;
    at_begin(&command, "AT+CGACT=");
    at_append_number(&command, state);
    at_append(&command, ",");
    at_append_number(&command, cid);
    return at_send_setter(&command, __func__);
}

result_t at_rmnet_call(const RmnetCallRequest *call)
{
    AtCommand command;
    at_begin(&command, "AT$QCRMCALL=");
    at_append_number(&command, call->action);
    at_append(&command, ",1");
    if (call->has_ip_type) {
        at_append(&command, ",");
        at_append_number(&command, call->ip_type);
    }
    if (call->has_pdp_index) {
        at_append(&command, ",2,");
        at_append_number(&command, call->pdp_index);
    }
    if (call->has_cdma_profile) {
        at_append(&command, ",");
        at_append_number(&command, call->cdma_profile);
    }
    if (call->has_apn && !call->apn.empty()) {
        at_append(&command, ",");
        at_append_quoted(&command, call->apn);
    }
    return at_send_setter(&command, __func__);
}

static void build_auth(AtCommand *command, int32_t cid, const ApnProfile *profile)
{
    at_begin(command, "AT+CGAUTH=");
    at_append_number(command, cid);
    at_append(command, ",");
    at_append_number(command, profile->auth);
    if (profile->auth == 0)
        return;
    at_append(command, ",");
    at_append_quoted(command, text_or_empty(profile->username));
    at_append(command, ",");
    at_append_quoted(command, text_or_empty(profile->password));
}

result_t at_set_pdp_auth(int32_t cid, const ApnProfile *profile)
{
    if (!profile)
        return cid == DATA_CONTEXT ? at_send_setter("AT+CGAUTH=1,0,\"\",\"\"\r") : RESULT_REFUSED;
    AtCommand command;
    build_auth(&command, cid, profile);
    return at_send_setter(&command, __func__);
}

static void build_context(AtCommand *command, int32_t cid, const ApnProfile *profile)
{
    at_begin(command, "AT+CGDCONT=");
    at_append_number(command, cid);
    at_append(command, profile->ip_family == FAMILY_IPV4   ? ",\"IP\""
                       : profile->ip_family == FAMILY_IPV6 ? ",\"IPV6\""
                                                           : ",\"IPV4V6\"");
    std::string_view apn = text_or_empty(profile->apn);
    if (apn.empty())
        return;
    at_append(command, ",");
    at_append_quoted(command, apn);
}

static result_t set_default_context(int32_t cid)
{
    if (cid == IMS_CONTEXT)
        return at_send_setter("AT+CGDCONT=2,\"IPV4V6\",\"ims\"\r");
    if (cid != DATA_CONTEXT)
        return RESULT_REFUSED;
    result_t code = at_send_setter("AT+CGDCONT=1,\"IPV4V6\",\"\"\r");
    if (code != RESULT_REQUEST_FAILED)
        (void)at_wanmd_set_apn(FAMILY_IPV4V6);
    return code;
}

static void tell_ip_family(int32_t family)
{
    (void)at_wanmd_set_apn(family);
    (void)run_shell(family == FAMILY_IPV4   ? "uci set wanmd.@profile[0].ip_family=IPV4"
                    : family == FAMILY_IPV6 ? "uci set wanmd.@profile[0].ip_family=IPV6"
                                            : "uci set wanmd.@profile[0].ip_family=IPV4V6");
    (void)run_shell("uci commit wanmd");
}

result_t at_set_pdp_context(int32_t cid, const ApnProfile *profile)
{
    if (!profile)
        return set_default_context(cid);
    AtCommand command;
    build_context(&command, cid, profile);
    const size_t length = command.length;
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    if (cid != IMS_CONTEXT)
        tell_ip_family(profile->ip_family);
    print_out("execute: %.*s\n", static_cast<int>(length), command.text);
    return at_send_setter(command.text);
}

result_t at_check_pdp_profile(int32_t cid, const ApnProfile *profile)
{
    AtCommand command;
    build_auth(&command, cid, profile);
    if (!at_command_ok(&command, "at_set_pdp_auth"))
        return RESULT_ERROR;
    build_context(&command, cid, profile);
    return at_command_ok(&command, "at_set_pdp_context") ? RESULT_OK : RESULT_ERROR;
}

// The exchange is tried again for as long as no answer comes, five times in all.
static void exchange_persistently(const char *command, const char *expected, AtAnswer *answer)
{
    constexpr int TRIES = 5;
    for (int i = 0; i < TRIES && running.load(); i++) {
        if (at_exchange(command, expected, nullptr, answer) != RESULT_REQUEST_FAILED)
            return;
    }
}

// Only the state parameter counts: error numbers and echoes hold digits too.
static bool ims_voice_is(std::string_view answer, bool wanted)
{
    std::string_view state = own_line(answer, "+CAVIMS:").text;
    size_t digit = state.find_first_not_of(' ');
    if (digit == std::string_view::npos || !isdigit(static_cast<unsigned char>(state[digit])))
        return false;
    return leading_int(state) == (wanted ? 1 : 0);
}

result_t at_set_ims_voice(int32_t enable)
{
    AtAnswer answer;
    exchange_persistently("AT+CAVIMS?\r", "+CAVIMS:", &answer);
    if (answer.text && ims_voice_is(answer.view(), enable != 0))
        return answer.code;

    AtCommand command;
    at_begin(&command, "AT+CAVIMS=");
    at_append_number(&command, enable);
    if (!at_command_ok(&command, __func__))
        return RESULT_ERROR;
    AtAnswer outcome;
    exchange_persistently(command.text, "OK", &outcome);
    return outcome.text ? outcome.code : RESULT_ERROR;
}

result_t at_set_fm160_usb_lock(uint8_t locked)
{
    return at_send_setter(locked ? "AT+GTINTFMODE=2\r" : "AT+GTINTFMODE=1\r");
}

// The fields of the line that defines context `cid`, the context's number first; empty when it is not listed.
static std::string_view context_line(std::string_view answer, int32_t cid)
{
    std::string_view fields;
    while (next_own_line(&answer, CONTEXT_MARKER, &fields)) {
        if (fields.find(',') != std::string_view::npos && leading_int(fields) == cid)
            return fields;
    }
    return {};
}

static bool nth_field(std::string_view line, int index, std::string_view *field)
{
    for (int i = 0; i <= index; i++) {
        if (!next_field(&line, field))
            return false;
    }
    return true;
}

result_t at_check_connectivity(uint8_t *connected)
{
    constexpr int ADDRESS_FIELD = 3;
    AtAnswer answer;
    result_t code = at_exchange(CONTEXT_QUERY, CONTEXT_MARKER, CONTEXT_MARKER, &answer);
    if (!answer.usable())
        return code;
    std::string_view address;
    if (!nth_field(context_line(answer.view(), DATA_CONTEXT), ADDRESS_FIELD, &address))
        return code;
    *connected = address.find_first_not_of("\",.:0 ") != std::string_view::npos;
    return *connected ? RESULT_OK : code;
}

static int32_t family_of(std::string_view pdp_type)
{
    if (pdp_type.find("IPV4V6") != std::string_view::npos)
        return FAMILY_IPV4V6;
    if (pdp_type.find("IPV6") != std::string_view::npos)
        return FAMILY_IPV6;
    return pdp_type.find("IP") != std::string_view::npos ? FAMILY_IPV4 : -1;
}

static bool copy_without_quotes(std::span<char> out, std::string_view text)
{
    size_t quotes = 0;
    for (char c : text)
        quotes += c == '"';
    if (text.size() - quotes >= out.size())
        return false;
    size_t used = 0;
    for (char c : text) {
        if (c != '"')
            out[used++] = c;
    }
    out[used] = '\0';
    return true;
}

result_t at_get_current_apn(int32_t cid, std::span<char> apn, int32_t *ip_family)
{
    AtAnswer answer;
    result_t code = at_exchange(CONTEXT_QUERY, CONTEXT_MARKER, CONTEXT_MARKER, &answer);
    if (!answer.usable())
        return code;
    std::string_view line = context_line(answer.view(), cid);
    std::string_view field;
    if (!nth_field(line, 1, &field))
        return code;
    const int32_t family = family_of(field);
    if (nth_field(line, 2, &field) && !copy_without_quotes(apn, field)) {
        log_error("APN of context %d is longer than %zu", cid, apn.size() - 1);
        return RESULT_ERROR;
    }
    *ip_family = family;
    return code;
}
