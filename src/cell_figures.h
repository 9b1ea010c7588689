// From the modem's index values to what people read: dBm and dB texts and band labels of serving cells. No state, any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "at_cell.h"

constexpr size_t FIGURE_SIZE = 32;
constexpr size_t BAND_LIST_SIZE = 64;

constexpr uint8_t RSSI_MAX = 31; // of AT+CSQ; a greater one is no level

using Figure = char[FIGURE_SIZE];

// Each writes the text of one index, such as "-91 dBm" or "-3.0 dB"; none looks for absent values.
void write_lte_rsrp(Figure &text, uint8_t rsrp);   // 3GPP TS 36.133 9.1.4, as the modem offsets it
void write_nr_ss_rsrp(Figure &text, uint8_t rsrp); // 3GPP TS 38.133 10.1.6
void write_lte_rsrq(Figure &text, uint8_t rsrq);   // 3GPP TS 36.133 9.1.7
void write_nr_ss_rsrq(Figure &text, uint8_t rsrq); // 3GPP TS 38.133 10.1.11
void write_lte_sinr(Figure &text, int32_t noise);
void write_nr_ss_sinr(Figure &text, int32_t noise); // 3GPP TS 38.133 10.1.16; in "dBm", as clients know it
void write_umts_ec_io(Figure &text, uint8_t ecio);
void write_umts_rssi(Figure &text, uint8_t rssi); // 3GPP TS 27.007 8.5

// Appends the label of the cell's band, such as "b3" or "n78", to the comma-separated list; nothing for a cell whose
// band is missing, no number or 255, or of another RAT.
void append_band_label(std::span<char, BAND_LIST_SIZE> list, const ServingCellRecord *cell);

// The cell of the highest RAT among the first `count` records, the earliest of equals; null for count 0.
const ServingCellRecord *best_cell(std::span<const ServingCellRecord> cells, size_t count);
// Number of records in front of the first without a RAT.
size_t filled_cells(std::span<const ServingCellRecord> cells);
