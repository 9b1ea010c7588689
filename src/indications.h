// What the modem says of itself: announced and listed messages, the SIM, packet data context 1, the result of a network
// scan (3GPP TS 27.005 and 27.007). Runs on the thread resp_processor and never waits for a consumer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr size_t APN_SIZE = 64;

// What the last "+CGDCONT: 1," line said. The thread resp_processor writes it; the requester takes the first one back.
extern std::atomic<uint8_t> ip_family_updated; // such a line has been seen
extern std::atomic<int32_t> g_ip_family;       // 0 IPv4, 2 IPv6, 3 IPv4v6, -1 unknown
// APN of PDP context 1, empty when unknown; written by handle_indications alone.
extern char g_apn[APN_SIZE];

// Acts on every line of what the modem said: reports of its own, and the lines of answers before their callers get
// them. Messages in it are in the store and on the disk when this returns, but those that the requester reads for
// itself (message_fetch.h).
void handle_indications(std::string_view text);
