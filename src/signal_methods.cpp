#include "signal_methods.h"

#include "at_cell.h"
#include "at_rat.h"
#include "cell_figures.h"
#include "handler.h"
#include "result.h"
#include "text_cut.h"

int handle_get_rssi(HANDLER_ARGUMENTS)
{
    uint8_t rssi = RSSI_UNKNOWN;
    result_t result = at_get_rssi(&rssi);
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK)
        reply_add_u32("rssi", rssi);
    return reply_send(ctx, req);
}

int handle_get_extended_signal_quality(HANDLER_ARGUMENTS)
{
    ExtendedSignalQuality quality = {BYTE_ABSENT, BYTE_ABSENT, BYTE_ABSENT, BYTE_ABSENT, BYTE_ABSENT,
                                     BYTE_ABSENT, BYTE_ABSENT, BYTE_ABSENT, BYTE_ABSENT};
    result_t result = at_get_extended_signal_quality(&quality);
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK) {
        reply_add_u32("rxlev", quality.rxlev);
        reply_add_u32("ber", quality.ber);
        reply_add_u32("rscp", quality.rscp);
        reply_add_u32("ecno", quality.ecno);
        reply_add_u32("rsrq", quality.rsrq);
        reply_add_u32("rsrp", quality.rsrp);
        reply_add_u32("ss_rsrq", quality.ss_rsrq);
        reply_add_u32("ss_rsrp", quality.ss_rsrp);
        reply_add_u32("ss_sinr", quality.ss_sinr);
    }
    return reply_send(ctx, req);
}

static void add_signal(const ServingCellRecord &cell)
{
    Figure text = "Unknown";
    if (const CellFigure *signal = signal_figure(cell.rat))
        (void)write_figure(text, *signal, cell);
    reply_add_string("signal", text);
}

// AT+GTCCINFO gives no signal strength of a UMTS cell, so AT+CSQ is asked for it.
static result_t add_umts_signal()
{
    uint8_t rssi = RSSI_UNKNOWN;
    result_t result = at_get_rssi(&rssi);
    if (result != RESULT_OK)
        return result;
    Figure text = "Unknown";
    if (rssi <= RSSI_MAX)
        write_umts_rssi(text, rssi);
    reply_add_string("signal", text);
    return result;
}

int handle_get_signal_quality(HANDLER_ARGUMENTS)
{
    ServingCellRecord cells[SERVING_CELLS] = {};
    result_t result = at_get_serving_cells(cells);
    reply_begin();
    if (result == RESULT_OK) {
        for (const ServingCellRecord &cell : cells) {
            if (cell.rat == RAT_UMTS)
                result = add_umts_signal();
            else
                add_signal(cell);
            if (cell.rat == RAT_NONE)
                break;
        }
    }
    reply_add_u32("result", result);
    return reply_send(ctx, req);
}

struct CellSummary {
    ServingCellRecord cells[SERVING_CELLS];
    size_t count;
    const ServingCellRecord *best; // null without a cell
    char bands[BAND_LIST_SIZE];
};

static result_t read_cells(CellSummary *summary)
{
    result_t result = at_get_serving_cells(summary->cells);
    summary->count = filled_cells(summary->cells);
    summary->best = best_cell(summary->cells, summary->count);
    for (size_t i = 0; i < summary->count; i++)
        append_band_label(summary->bands, &summary->cells[i]);
    return result;
}

static void add_signal_members(const ServingCellRecord &cell, const ServingCellRecord &best)
{
    const CellFigure *signal = signal_figure(cell.rat);
    if (!signal)
        return;
    Figure text = "--";
    (void)write_figure(text, *signal, cell);
    if (cell.rat != RAT_UMTS)
        reply_add_u32("pcellid", static_cast<uint32_t>(best.pcellid));
    reply_add_string(signal->signal_name, text);
}

static void add_best_cell(const CellSummary &summary, bool with_ecio)
{
    const ServingCellRecord *best = summary.best;
    reply_add_u32("rat", best->rat);
    reply_add_string("cellid", best->cellid);
    reply_add_string("band", summary.bands);
    if (with_ecio)
        reply_add_u32("ecio", best->ecio);
    reply_add_string("mcc", best->mcc);
    reply_add_string("mnc", best->mnc);
    reply_add_string("lac", best->lac);
}

int handle_get_current_cell_info(HANDLER_ARGUMENTS)
{
    CellSummary summary = {};
    if (read_cells(&summary) != RESULT_OK || !summary.best)
        return reply_result(ctx, req, RESULT_REFUSED);
    reply_begin();
    for (size_t i = 0; i < summary.count; i++)
        add_signal_members(summary.cells[i], *best_cell(summary.cells, i + 1));
    add_best_cell(summary, true);
    reply_add_u32("result", RESULT_OK);
    return reply_send(ctx, req);
}

int handle_get_current_cell_info_explained(HANDLER_ARGUMENTS)
{
    CellSummary summary = {};
    if (read_cells(&summary) != RESULT_OK)
        return reply_result(ctx, req, RESULT_REFUSED);
    reply_begin();
    for (const CellFigure &figure : cell_figures) {
        Figure text = "--"; // the last cell of a RAT that knows it counts
        for (size_t i = 0; i < summary.count; i++)
            (void)write_figure(text, figure, summary.cells[i]);
        reply_add_string(figure.name, text);
    }
    if (summary.best)
        add_best_cell(summary, false);
    reply_add_u32("result", summary.best ? RESULT_OK : RESULT_REFUSED);
    return reply_send(ctx, req);
}

int handle_get_cell_info(HANDLER_ARGUMENTS)
{
    CellInfo info = {};
    result_t result = at_get_cell_info(&info);
    const struct {
        const char *name;
        const char *text;
    } members[] = {
        {"Mode", info.Mode}, {"BeamID", info.BeamID}, {"CQI", info.CQI},     {"Power", info.Power},
        {"RANK", info.RANK}, {"DLMCS", info.DLMCS},   {"ULMCS", info.ULMCS},
    };
    reply_begin();
    reply_add_u32("result", result);
    for (const auto &member : members)
        reply_add_string(member.name, result == RESULT_OK ? member.text : "--");
    return reply_send(ctx, req);
}

int handle_get_current_rat_and_band(HANDLER_ARGUMENTS)
{
    RatAndBand current = {};
    char bands[BANDS_SIZE] = "";
    result_t result = at_get_current_rat_and_band(&current, bands);
    reply_begin();
    reply_add_u32("result", result);
    reply_add_u32("rat", static_cast<uint32_t>(current.rat));
    if (current.pref_act1)
        reply_add_u32("pref_act1", static_cast<uint32_t>(current.pref_act1));
    if (current.pref_act2)
        reply_add_u32("pref_act2", static_cast<uint32_t>(current.pref_act2));
    reply_add_string("bands", bands);
    return reply_send(ctx, req);
}
