// One APN profile of the router.
#pragma once

#include <cstdint>

// Zero-filled before use. Texts are null when absent; those that a function of profile_store.h put in are heap texts,
// freed by free_profile.
struct ApnProfile {
    int32_t ip_family; // 0 IPv4, 2 IPv6, any other value IPv4v6
    const char *apn;
    const char *name;
    const char *username;
    const char *password;
    int32_t auth; // as AT+CGAUTH numbers it (3GPP TS 27.007 10.1.31), 0 none
    int32_t ims;  // of default profiles only
};
