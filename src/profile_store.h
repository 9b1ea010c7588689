// The router's APN profiles: the user's list in the UCI package `profiles`, the operator's defaults in
// `default_profile`, and their way to the modem's PDP contexts. Nothing is kept in memory between calls. Any thread.
#pragma once

#include <cstdint>

#include "apn_profile.h"

constexpr int32_t ALL_PROFILES = -1;
constexpr int32_t NOT_GIVEN = -1; // of ip_family and auth in modify_profile_section

// All return 0; -1 when something is not there, a value is longer than UCI_VALUE_MAX or memory is short; or libuci's
// error number. An id is the position of a profile in its package, counted from 0.

// Fills in what the section "profile" or "ims" of the default profile has and leaves the rest; -1 on every failure,
// with the record as it was.
int load_default_profile(ApnProfile *record, const char *section);
int read_profile(int32_t id, ApnProfile *record);
// All of them as one heap block; freed by free_profiles.
int list_profiles(ApnProfile **records, uint32_t *count);
// A profile is stored whole or not at all.
int add_profile_section(const ApnProfile *record);
// Changes what is given: texts that are not null, numbers that are not NOT_GIVEN.
int modify_profile_section(int32_t id, const ApnProfile *record);
int delete_profile_section(int32_t id); // or ALL_PROFILES

void free_profile(ApnProfile *record);
void free_profiles(ApnProfile *records, uint32_t count);

// Sends authentication and context definition to PDP context `cid`; a null record stands for the modem's default. 0
// whatever the modem answers; RESULT_ERROR, nothing sent or changed, when a text of the record cannot stand in a
// command.
int apply_profile(int32_t cid, const ApnProfile *record);
