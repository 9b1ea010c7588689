// Which radio access technologies and bands the modem may use, and the band notation that clients read and write: a
// comma-separated list of "n78" (NR), "b3" (LTE), "VIII" (UMTS), "A" to "F" (TD-SCDMA), "BC0" (CDMA/EVDO) and "1800"
// (GSM).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "result.h"

constexpr size_t BANDS_SIZE = 512; // room for the bands of a modem in band notation

// `act` and the preferences are the modem's own numbers for sets of access technologies.
struct RatSelection {
    uint8_t act;
    uint8_t has_pref1;
    uint8_t pref1;
    uint8_t has_pref2;
    uint8_t pref2;
    const char *bands; // band notation, the caller's; null for none. UMTS bands may be "w8" too
};

// What the router's network modes mean to the modem: the numbers of the method set_network_mode, and without the last
// one of the option apn.networkmode.mode.
constexpr uint8_t STAND_ALONE_UNCHANGED = 2;
struct NetworkMode {
    RatSelection selection;
    uint8_t stand_alone; // 5G stand-alone switch: 0, 1 or STAND_ALONE_UNCHANGED
};
inline constexpr NetworkMode network_modes[] = {
    {{20, 1, 6, 1, 3, nullptr}, 1},
    {{20, 1, 6, 1, 3, nullptr}, 0},
    {{14, 0, 0, 0, 0, nullptr}, 1},
    {{2, 0, 0, 0, 0, nullptr}, STAND_ALONE_UNCHANGED},
    {{1, 0, 0, 0, 0, nullptr}, STAND_ALONE_UNCHANGED},
    {{17, 1, 6, 0, 0, nullptr}, 1},
    {{17, 1, 6, 0, 0, nullptr}, 0},
};

struct RatAndBand {
    int32_t rat;
    int32_t pref_act1; // 0 for none
    int32_t pref_act2;
    const char *bands; // at_select_rat_and_band only: band notation, the caller's; null for none
};

// All return a result code, wait at most AT_TIMEOUT_MS and may be called from any thread. What the setters do not know
// as a band they leave out; a command of more than 1023 (at_select_rat) or 511 characters is refused with RESULT_ERROR,
// and so is a band text with characters that would end the command.

result_t at_select_rat(const RatSelection *selection);
// RESULT_REFUSED for a preferred act other than 0, 2, 3 and 6. The bands count only with both preferred acts.
result_t at_select_rat_and_band(const RatAndBand *selection);
// Fills the numbers of *current, and `bands` with the bands in band notation, unless it is empty. RESULT_ERROR, with a
// log line and no bands, when `bands` has no room for them.
result_t at_get_current_rat_and_band(RatAndBand *current, std::span<char> bands);

// Value of a Roman numeral; characters that are none count 0.
int32_t roman_to_int(std::string_view numeral);
// Appends the numeral of `number` to the zero-terminated text in `text`; nothing for a number below 1. False, and the
// text unchanged, when there is no room.
bool int_to_roman(int32_t number, std::span<char> text);
