// PDP contexts, data calls and what goes with them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "result.h"

struct ApnProfile;

constexpr int32_t DATA_CONTEXT = 1; // carries the internet connection
constexpr int32_t IMS_CONTEXT = 2;

struct RmnetCallRequest {
    uint8_t action; // 1 start, 0 stop
    uint8_t has_ip_type;
    int32_t ip_type;
    uint8_t has_pdp_index;
    int32_t pdp_index;
    uint8_t has_cdma_profile;
    int32_t cdma_profile;
    uint8_t has_apn;
    std::string_view apn; // an empty one counts as absent
};

// Each sends its command and gives back a result code; any thread. RESULT_ERROR, with a log line and nothing sent, for
// a text that cannot stand in a command.
result_t at_set_pdp_context_activation(int32_t cid, uint8_t state);
result_t at_rmnet_call(const RmnetCallRequest *call);
// RESULT_REFUSED, nothing sent, when there is no default for the context: `profile` may be null for context 1 only.
result_t at_set_pdp_auth(int32_t cid, const ApnProfile *profile);
// `profile` may be null for contexts 1 and 2, else RESULT_REFUSED. For every context but 2 the connection manager and
// its UCI configuration are told the IP family first, whatever the modem answers then.
result_t at_set_pdp_context(int32_t cid, const ApnProfile *profile);
// RESULT_OK when the profile's texts can stand in both commands above; else RESULT_ERROR after a log line.
result_t at_check_pdp_profile(int32_t cid, const ApnProfile *profile);
// Nothing is set when the modem is in the wanted state already. Up to 5 tries of 3 s for the query and for the command.
result_t at_set_ims_voice(int32_t enable);
result_t at_set_fm160_usb_lock(uint8_t locked);
// *connected becomes 1, with RESULT_OK, when context 1 has an address (one of zeros is none), 0 when it has none;
// untouched when the context is not listed.
result_t at_check_connectivity(uint8_t *connected);
// APN and IP family (0 IP, 2 IPV6, 3 IPV4V6, -1 anything else) of a context; untouched when it is not listed.
// RESULT_ERROR when the APN does not fit `apn`.
result_t at_get_current_apn(int32_t cid, std::span<char> apn, int32_t *ip_family);
