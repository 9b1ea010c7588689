#include "cell_figures.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "text_cut.h"

using Source = CellFigure::Source;
// clang-format off
extern const std::array<CellFigure, 7> cell_figures = {{
    {"ec_io",      "ec_io",   RAT_UMTS, Source::rsrp,  0.5, -24.5,  1, "dB"},
    {"lte_signal", "rsrp",    RAT_LTE,  Source::rsrp,  1.0, -141.0, 0, "dBm"}, // 3GPP TS 36.133 9.1.4, as the modem offsets it
    {"rsrq",       nullptr,   RAT_LTE,  Source::rsrq,  0.5, -20.0,  1, "dB"},  // 3GPP TS 36.133 9.1.7
    {"lte_noise",  nullptr,   RAT_LTE,  Source::noise, 0.5, 0.0,    1, "dB"},
    {"nr_signal",  "ss_rsrp", RAT_NR,   Source::rsrp,  1.0, -156.0, 0, "dBm"}, // 3GPP TS 38.133 10.1.6
    {"ss_rsrq",    nullptr,   RAT_NR,   Source::rsrq,  0.5, -43.5,  1, "dB"},  // 3GPP TS 38.133 10.1.11
    {"nr_noise",   nullptr,   RAT_NR,   Source::noise, 0.5, -23.5,  1, "dBm"}, // 3GPP TS 38.133 10.1.16; as clients know it
}};
// clang-format on

const CellFigure *signal_figure(uint8_t rat)
{
    for (const CellFigure &figure : cell_figures) {
        if (figure.signal_name && figure.rat == rat)
            return &figure;
    }
    return nullptr;
}

bool write_figure(Figure &text, const CellFigure &figure, const ServingCellRecord &cell)
{
    if (cell.rat != figure.rat)
        return false;
    const int32_t index = figure.source == Source::noise  ? cell.noise
                          : figure.source == Source::rsrq ? cell.rsrq
                                                          : cell.rsrp;
    if (index >= (figure.source == Source::noise ? NOISE_ABSENT : BYTE_ABSENT))
        return false;
    snprintf(text, sizeof text, "%.*f %s", figure.decimals, index * figure.factor + figure.offset, figure.unit);
    return true;
}

void write_umts_rssi(Figure &text, uint8_t rssi)
{
    snprintf(text, sizeof text, "%d dBm", 2 * rssi - 113);
}

static std::string_view band_number(const ServingCellRecord *cell)
{
    std::string_view band = cell->band;
    if (cell->rat == RAT_UMTS)
        return band;
    // The first character stands for the technology, a zero behind it only fills up.
    return behind(band, band.size() >= 2 && band[1] == '0' ? 2 : 1);
}

void append_band_label(std::span<char, BAND_LIST_SIZE> list, const ServingCellRecord *cell)
{
    if (cell->rat != RAT_UMTS && cell->rat != RAT_LTE && cell->rat != RAT_NR)
        return;
    std::string_view number = band_number(cell);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string_view::npos ||
        std::string_view(cell->band) == "255")
        return;
    size_t used = strnlen(list.data(), list.size());
    // Three labels of at most ten characters always fit; a further label is left out completely.
    if (used + number.size() + 3 > list.size())
        return;
    snprintf(list.data() + used, list.size() - used, "%s%c%.*s", used ? "," : "", cell->rat == RAT_NR ? 'n' : 'b',
             static_cast<int>(number.size()), number.data());
}

const ServingCellRecord *best_cell(std::span<const ServingCellRecord> cells, size_t count)
{
    const ServingCellRecord *best = nullptr;
    for (const ServingCellRecord &cell : cells.first(count)) {
        if (!best || best->rat < cell.rat)
            best = &cell;
    }
    return best;
}

size_t filled_cells(std::span<const ServingCellRecord> cells)
{
    size_t count = 0;
    while (count < cells.size() && cells[count].rat != RAT_NONE)
        count++;
    return count;
}
