#include "cell_figures.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "text_cut.h"

static void write_dbm(Figure &text, int value)
{
    snprintf(text, sizeof text, "%d dBm", value);
}

static void write_db(Figure &text, double value)
{
    snprintf(text, sizeof text, "%.1f dB", value);
}

void write_lte_rsrp(Figure &text, uint8_t rsrp)
{
    write_dbm(text, rsrp - 141);
}

void write_nr_ss_rsrp(Figure &text, uint8_t rsrp)
{
    write_dbm(text, rsrp - 156);
}

void write_lte_rsrq(Figure &text, uint8_t rsrq)
{
    write_db(text, rsrq * 0.5 - 20.0);
}

void write_nr_ss_rsrq(Figure &text, uint8_t rsrq)
{
    write_db(text, rsrq * 0.5 - 43.5);
}

void write_lte_sinr(Figure &text, int32_t noise)
{
    write_db(text, noise * 0.5);
}

void write_nr_ss_sinr(Figure &text, int32_t noise)
{
    snprintf(text, sizeof text, "%.1f dBm", (noise - 1.0) * 0.5 - 23.0);
}

void write_umts_ec_io(Figure &text, uint8_t ecio)
{
    write_db(text, ecio * 0.5 - 24.5);
}

void write_umts_rssi(Figure &text, uint8_t rssi)
{
    write_dbm(text, 2 * rssi - 113);
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
    // Three labels of at most ten characters always fit; one more is left out whole.
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
