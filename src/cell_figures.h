// From the modem's index values to what people read: dBm and dB texts and band labels of serving cells. No state, any
// thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "at_cell.h"

constexpr size_t FIGURE_SIZE = 32;
constexpr size_t BAND_LIST_SIZE = 64;

constexpr uint8_t RSSI_MAX = 31; // of AT+CSQ; a greater one is no level

using Figure = char[FIGURE_SIZE];

// A figure of serving cells and how the modem's index becomes its text, such as "-91 dBm" or "-3.0 dB".
struct CellFigure {
    const char *name;
    const char *signal_name; // of the figure that is the RAT's signal strength: another name it has; else null
    uint8_t rat;
    enum class Source : uint8_t { rsrp, rsrq, noise } source;
    double factor, offset;
    int decimals;
    const char *unit;
};
extern const std::array<CellFigure, 7> cell_figures;

// The figure of the RAT's signal strength; null for another RAT than UMTS, LTE and NR.
const CellFigure *signal_figure(uint8_t rat);
// False, and the text unchanged, when the cell is of another RAT or the modem does not know the figure.
bool write_figure(Figure &text, const CellFigure &figure, const ServingCellRecord &cell);
void write_umts_rssi(Figure &text, uint8_t rssi); // 3GPP TS 27.007 8.5

// Appends the label of the cell's band, such as "b3" or "n78", to the comma-separated list; nothing for a cell whose
// band is missing, no number or 255, or of another RAT.
void append_band_label(std::span<char, BAND_LIST_SIZE> list, const ServingCellRecord *cell);

// The cell of the highest RAT among the first `count` records, the earliest of equals; null for count 0.
const ServingCellRecord *best_cell(std::span<const ServingCellRecord> cells, size_t count);
// Number of records in front of the first without a RAT.
size_t filled_cells(std::span<const ServingCellRecord> cells);
