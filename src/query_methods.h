// The methods that read one text from the modem.
#pragma once

#include "at_query.h"
#include "handler.h"

constexpr size_t QUERY_TEXT_MAX = 1024;

// One such method: its function, the capacity of the value with its terminating zero (at most QUERY_TEXT_MAX), and the
// reply's member.
struct StringQuery {
    result_t (*get)(std::span<char> out);
    size_t size;
    const char *member;
};

inline constexpr StringQuery get_imei_row = {at_get_imei, 18, "imei"};
inline constexpr StringQuery get_imsi_row = {at_get_imsi, 16, "imsi"};
inline constexpr StringQuery get_ccid_row = {at_get_ccid, 21, "ccid"};
inline constexpr StringQuery get_msisdn_row = {at_get_msisdn, 17, "msisdn"};
inline constexpr StringQuery get_roaming_status_row = {at_get_roaming_status, 3, "roaming_status"};
inline constexpr StringQuery get_support_tech_row = {at_get_support_tech, 1024, "support_tech"};
inline constexpr StringQuery get_prefer_tech_row = {at_get_prefer_tech, 16, "prefer_tech"};
inline constexpr StringQuery get_current_tech_row = {at_get_current_tech, 6, "current_tech"};
inline constexpr StringQuery get_network_requested_row = {at_get_network_requested, 16, "network_requested"};
inline constexpr StringQuery get_model_row = {at_get_model, 22, "model"};
inline constexpr StringQuery get_manufacturer_row = {at_get_manufacturer, 50, "manufacturer"};
inline constexpr StringQuery get_hw_version_row = {at_get_hw_version, 30, "hw_version"};
inline constexpr StringQuery get_sw_version_row = {at_get_sw_version, 50, "sw_version"};
inline constexpr StringQuery get_sim_status_row = {at_get_sim_status, 50, "status"};

// The body of all of them.
int reply_string_query(struct ubus_context *ctx, struct ubus_request_data *req, const StringQuery &row);

// The handler that is bound to a row.
template<const StringQuery &row> int handle_string_query(HANDLER_ARGUMENTS)
{
    return reply_string_query(ctx, req, row);
}

int handle_get_pdp_contexts(HANDLER_ARGUMENTS);
int handle_get_caller_id(HANDLER_ARGUMENTS);
