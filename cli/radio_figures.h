// From what daemon and modem say about the radio to figures and words. Pure functions and tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// What a text such as "-78 dBm" or "22.0 dB" says, in tenths: -780, 220. Nullopt for "--", null and other texts.
std::optional<int32_t> figure_tenths(const char *text);

// A decimal or hexadecimal number that fits; nullopt for anything else, an empty text too.
std::optional<int64_t> whole_number(std::string_view text, int base = 10);

// The next field of a comma-separated text, blanks around it and quotes taken off; false behind the last one.
bool next_field(std::string_view &rest, std::string_view &field);

// Radio access technologies as the daemon numbers them for cells.
enum Rat : int { RAT_UMTS = 2, RAT_LTE = 4, RAT_NR = 9 };
const char *rat_name(int rat); // "LTE"; null for another number

// "LTE" and the like for an access technology of 3GPP TS 27.007 7.3 (AcT); null for one that is not known.
const char *act_name(int act);
// A registration state of 3GPP TS 27.007 7.2; null for one that is not known.
const char *registration_name(int state);

// A cell of the modem's list, AT+GTCCINFO. Figures in tenths of dBm or dB; what the modem leaves out is nullopt.
struct Cell {
    bool serving;
    int rat;
    std::string_view mcc;
    std::string_view mnc;
    std::optional<int64_t> area;  // tracking or location area code
    std::optional<int64_t> id;    // cell identity
    std::optional<int64_t> arfcn; // EARFCN, NR-ARFCN or UARFCN
    std::optional<int64_t> pci;   // physical cell identity; of UMTS the primary scrambling code
    std::optional<int64_t> band;  // number
    std::optional<int32_t> rsrp;  // of UMTS the RSCP
    std::optional<int32_t> rsrq;  // of UMTS the Ec/Io
    std::optional<int32_t> sinr;
};

// Takes the first cell off the lines of an answer to AT+GTCCINFO?, other lines in front of it as well; the texts of
// the cell point into the answer. False when there is none left. *labelled, false at first, goes with the answer:
// models without label lines (FM350) write channel and PCI in decimal, the others in hexadecimal.
bool next_cell(std::string_view &answer, bool *labelled, Cell *cell);

// A level in words, by its RSRP (UMTS: Ec/Io) in tenths: "excellent", "good", "fair", "weak", "very weak".
const char *signal_word(int rat, int32_t tenths);
// Limits between which bars and sparklines show the same figure, in tenths.
struct Limits {
    int32_t lowest;
    int32_t highest;
};
Limits signal_limits(int rat);
