#include "method_table.h"

#include <iterator>
#include <string_view>

#include "data_methods.h"
#include "message_methods.h"
#include "message_send.h"
#include "network_methods.h"
#include "profile_methods.h"
#include "query_methods.h"
#include "signal_methods.h"
#include "sim_methods.h"

// clang-format off
#define NO_ARGUMENTS nullptr, 0
#define ARGUMENTS(policy) policy, static_cast<int>(std::size(policy))
#define PLAIN(name, access, kind, text) {#name, handle_##name, NO_ARGUMENTS, Access::access, Kind::kind, text}
#define WITH_ARGS(name, policy, access, kind, text) \
    {#name, handle_##name, ARGUMENTS(policy), Access::access, Kind::kind, text}
#define STRING_QUERY(name, text) {#name, handle_string_query<name##_row>, NO_ARGUMENTS, Access::read, Kind::query, text}
// The methods of the message store stand in the log under names of their own.
#define STORE(name, arguments, access, text) \
    {#name, handle_##name, arguments, Access::access, Kind::quick, text, "_" #name}

constexpr std::array<MethodRow, METHOD_COUNT> rows = {{
    PLAIN(get_rssi, read, query, "signal strength index of AT+CSQ"),
    PLAIN(get_extended_signal_quality, read, query, "the nine signal indexes of AT+CESQ"),
    PLAIN(get_signal_quality, read, query, "signal of each serving cell in dBm"),
    PLAIN(get_current_cell_info, read, query, "serving cells: bands, signal, identity"),
    PLAIN(get_current_cell_info_explained, read, query, "serving cells with all signal figures as texts"),
    PLAIN(get_operator_info, read, query, "operator and how it was selected"),
    STRING_QUERY(get_imei, "identity of the modem"),
    STRING_QUERY(get_imsi, "identity of the subscriber"),
    STRING_QUERY(get_ccid, "identity of the SIM card"),
    STRING_QUERY(get_msisdn, "phone number stored on the SIM"),
    STRING_QUERY(get_roaming_status, "registration state of AT+CREG"),
    STRING_QUERY(get_support_tech, "technologies that the modem supports"),
    STRING_QUERY(get_prefer_tech, "technology selection with its preferences"),
    STRING_QUERY(get_current_tech, "technology selection alone"),
    STRING_QUERY(get_network_requested, "technology selection as requested"),
    STRING_QUERY(get_model, "model of the modem"),
    STRING_QUERY(get_manufacturer, "manufacturer of the modem"),
    STRING_QUERY(get_hw_version, "hardware version"),
    STRING_QUERY(get_sw_version, "firmware version"),
    STRING_QUERY(get_sim_status, "whether the SIM is ready or waits for a PIN or PUK"),
    PLAIN(get_sim_lock_status, read, query, "whether the SIM asks for its PIN at start"),
    WITH_ARGS(set_sim_lock_status, policy_set_sim_lock_status, write, modem, "switch the SIM's PIN request"),
    PLAIN(get_sim_remaining_attempts, read, query, "attempts left for PIN and PUK"),
    WITH_ARGS(unlock_sim, policy_unlock_sim, write, modem, "enter the PIN, or the PUK with a new PIN"),
    WITH_ARGS(change_sim_pin, policy_change_sim_pin, write, modem, "change the PIN"),
    PLAIN(wanmd_enable, write, set_up, "radio on and connection manager (re)started"),
    PLAIN(wanmd_disable, write, set_up, "connection manager stopped"),
    WITH_ARGS(select_operator, policy_select_operator, write, modem, "select the operator, or automatic selection"),
    WITH_ARGS(select_rat, policy_select_rat, write, modem, "select technology and preferences"),
    WITH_ARGS(set_network_mode, policy_set_network_mode, write, modem, "select one of the router's network modes"),
    PLAIN(get_autoconnect, read, quick, "whether the data connection comes up by itself"),
    WITH_ARGS(set_autoconnect, policy_set_autoconnect, write, quick, "let the data connection come up by itself, or not"),
    WITH_ARGS(set_pdp_context_activation, policy_set_pdp_context_activation, write, modem, "activate or deactivate a PDP context"),
    WITH_ARGS(set_default_apn, policy_set_default_apn, write, set_up, "define PDP context 1"),
    WITH_ARGS(select_profile, policy_select_profile, write, set_up, "apply a stored APN profile to PDP context 1"),
    WITH_ARGS(add_profile, policy_add_profile, write, quick, "store an APN profile"),
    PLAIN(get_profile_list, read, quick, "all stored APN profiles"),
    WITH_ARGS(get_profile, policy_get_profile, read, quick, "one stored APN profile"),
    WITH_ARGS(delete_profile, policy_delete_profile, write, quick, "delete one stored APN profile, or all"),
    WITH_ARGS(modify_profile, policy_modify_profile, write, quick, "change a stored APN profile"),
    PLAIN(get_current_apn, read, query, "APN and IP family of PDP context 1"),
    PLAIN(get_current_ims_apn, read, query, "APN and IP family of PDP context 2"),
    WITH_ARGS(rmnet_call, policy_rmnet_call, write, modem, "start or stop the data call on the network interface"),
    WITH_ARGS(set_5gsa, policy_set_5gsa, write, modem, "switch 5G stand-alone"),
    WITH_ARGS(set_roaming_enable, policy_set_roaming_enable, write, modem, "allow or forbid roaming"),
    WITH_ARGS(get_remaining_pin_retries, policy_get_remaining_pin_retries, read, modem, "attempts left and allowed for each code"),
    WITH_ARGS(set_sms_message_format, policy_set_sms_message_format, write, modem, "PDU or text mode of the SMS commands"),
    PLAIN(get_gtccinfo, read, query, "first serving-cell line of AT+GTCCINFO as it stands"),
    PLAIN(get_pdp_contexts, read, query, "activation states of the PDP contexts"),
    PLAIN(check_connectivity, read, query, "whether PDP context 1 has an address"),
    STORE(get_all_messages, NO_ARGUMENTS, read, "all stored messages"),
    STORE(get_message, ARGUMENTS(policy_message_index), read, "one stored message"),
    STORE(read_message, ARGUMENTS(policy_message_index), write, "mark a message as read"),
    STORE(read_messages, ARGUMENTS(policy_message_index_list), write, "mark messages as read"),
    STORE(delete_all_messages, NO_ARGUMENTS, write, "delete all stored messages"),
    STORE(delete_message, ARGUMENTS(policy_message_index), write, "delete a stored message"),
    STORE(delete_messages, ARGUMENTS(policy_message_index_list), write, "delete stored messages"),
    WITH_ARGS(send_message, policy_send_message, write, modem, "send a text message"),
    PLAIN(get_caller_id, read, query, "number of the incoming call"),
    PLAIN(get_pcm_loopback_state, read, query, "whether the audio loopback is on"),
    WITH_ARGS(set_pcm_loopback_state, policy_set_pcm_loopback_state, write, modem, "switch the audio loopback"),
    WITH_ARGS(set_fm160_usb_lock, policy_set_fm160_usb_lock, write, modem, "choose the modem's interface mode"),
    PLAIN(get_current_rat_and_band, read, query, "technology selection and bands"),
    WITH_ARGS(select_rat_and_band, policy_select_rat_and_band, write, modem, "select technology, preferences and bands"),
    PLAIN(hangup_call, write, modem, "end a voice call"),
    WITH_ARGS(at_passthrough, policy_at_passthrough, passthrough, modem, "send a raw AT command"),
    PLAIN(get_cell_info, read, query, "beam and scheduling figures of the serving cell"),
    PLAIN(scan_network, write, modem, "start a network scan"),
}};
// clang-format on

constexpr bool names_unique()
{
    for (size_t i = 0; i < rows.size(); i++) {
        for (size_t j = 0; j < i; j++) {
            if (std::string_view(rows[i].name) == rows[j].name)
                return false;
        }
    }
    return true;
}

constexpr bool policies_agree()
{
    for (const MethodRow &row : rows) {
        if (!row.handler || !row.description || (row.policy == nullptr) != (row.policy_count == 0))
            return false;
        if (row.kind == Kind::query && (row.policy || row.access != Access::read))
            return false;
    }
    return true;
}

static_assert(names_unique());
#ifndef __SANITIZE_ADDRESS__ // under which gcc no longer takes the addresses of functions for constants
static_assert(policies_agree());
#endif

extern const std::array<MethodRow, METHOD_COUNT> method_rows = rows;
