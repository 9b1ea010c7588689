// The simple queries: each asks the modem for one value and copies it. A query is a row of data; the function that a
// method calls is bound to its row.
#pragma once

#include <span>

#include "result.h"

// Where the value stands behind the value marker, in the marker's own line.
enum class ValueCut {
    to_line_end,      // up to the CR or LF; the quotes of a value that stands whole in double quotes are dropped
    to_comma,         // up to the first ","
    quoted,           // between the first double quote and the next one that is not right behind it
    quoted_empty_too, // between the first double quote and the next one
    quoted_field,     // the second field, without its double quotes
    digits_field,     // the decimal digits that the second field begins with
    hardware_version, // from the second character up to the next double quote; the line may begin with other text
    after_each_comma, // the character that follows each "," of all such lines
    to_quote,         // up to the next double quote
};

struct AtQuery {
    const char *command;         // ends in "\r"
    const char *expected;        // what an answer must hold to be taken; the line of the value begins with it
    const char *complete_marker; // tells an answer without final result from a foreign one
    const char *value_marker;    // in that line
    ValueCut cut;
};

extern const AtQuery imei_query, imsi_query, ccid_query, msisdn_query, roaming_status_query, support_tech_query,
    prefer_tech_query, current_tech_query, network_requested_query, model_query, manufacturer_query, hw_version_query,
    sw_version_query, sim_status_query, pdp_contexts_query, caller_id_query;

// Runs a query. `out` is the caller's zeroed buffer; it is written only when the answer holds a value that fits with
// its terminating zero. A result code; RESULT_ERROR with one log line when the value does not fit.
result_t at_run_query(const AtQuery &query, std::span<char> out);

template<const AtQuery &query> result_t run_query_row(std::span<char> out)
{
    return at_run_query(query, out);
}

inline constexpr auto at_get_imei = run_query_row<imei_query>;
inline constexpr auto at_get_imsi = run_query_row<imsi_query>;
inline constexpr auto at_get_ccid = run_query_row<ccid_query>;
inline constexpr auto at_get_msisdn = run_query_row<msisdn_query>;
inline constexpr auto at_get_roaming_status = run_query_row<roaming_status_query>;
inline constexpr auto at_get_support_tech = run_query_row<support_tech_query>;
inline constexpr auto at_get_prefer_tech = run_query_row<prefer_tech_query>;
inline constexpr auto at_get_current_tech = run_query_row<current_tech_query>;
inline constexpr auto at_get_network_requested = run_query_row<network_requested_query>;
inline constexpr auto at_get_model = run_query_row<model_query>;
inline constexpr auto at_get_manufacturer = run_query_row<manufacturer_query>;
inline constexpr auto at_get_hw_version = run_query_row<hw_version_query>;
inline constexpr auto at_get_sw_version = run_query_row<sw_version_query>;
inline constexpr auto at_get_pdp_contexts = run_query_row<pdp_contexts_query>;
inline constexpr auto at_get_caller_id = run_query_row<caller_id_query>;
// Tells the connection manager as well whether the SIM is ready or absent. Only the ubus thread.
result_t at_get_sim_status(std::span<char> out);
