// The signal of the serving cells, as `signal` and `status` show it.
#pragma once

#include <cstdint>
#include <optional>

#include "bus.h"

// Figures in tenths of dBm and dB. The texts belong to the reply that they were read from.
struct Signal {
    bool known;        // whether the modem told of its cells
    int rat;           // of the best cell, 0 for none
    const char *bands; // such as "b3,n41"; null when not known
    const char *cell_id;
    const char *area;
    const char *mcc;
    const char *mnc;
    std::optional<int32_t> lte_rsrp, lte_rsrq, lte_sinr;
    std::optional<int32_t> nr_rsrp, nr_rsrq, nr_sinr;
    std::optional<int32_t> umts_ecio;
};

// Whether this answer of get_current_cell_info_explained says something: figures, or that there is no cell. Its result
// is -1 for no cell and for whatever goes wrong alike.
bool has_figures(const Reply &reply);
// What it says; everything unknown when it is not done.
Signal read_signal(const Reply &reply);
// The figure of the best cell by which it is judged; nullopt without one.
std::optional<int32_t> leading_figure(const Signal &signal);

// The members "bands", "cell", "lte", "nr" and "umts", into the open object.
void json_signal(const Signal &signal);
// A row for each technology that has figures, with bars and a word for it.
void print_signal_rows(const Signal &signal);
