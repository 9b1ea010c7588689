#include "signal_view.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "json.h"
#include "output.h"
#include "radio_figures.h"
#include "text.h"

bool has_figures(const Reply &reply)
{
    return reply.answered && reply.text("ec_io");
}

Signal read_signal(const Reply &reply)
{
    Signal signal = {};
    signal.known = has_figures(reply);
    if (!reply.done())
        return signal;
    signal.rat = reply.number("rat").value_or(0);
    signal.bands = reply.text("band");
    signal.cell_id = reply.text("cellid");
    signal.area = reply.text("lac");
    signal.mcc = reply.text("mcc");
    signal.mnc = reply.text("mnc");
    signal.lte_rsrp = figure_tenths(reply.text("lte_signal"));
    signal.lte_rsrq = figure_tenths(reply.text("rsrq"));
    signal.lte_sinr = figure_tenths(reply.text("lte_noise"));
    signal.nr_rsrp = figure_tenths(reply.text("nr_signal"));
    signal.nr_rsrq = figure_tenths(reply.text("ss_rsrq"));
    signal.nr_sinr = figure_tenths(reply.text("nr_noise"));
    signal.umts_ecio = figure_tenths(reply.text("ec_io"));
    return signal;
}

std::optional<int32_t> leading_figure(const Signal &signal)
{
    switch (signal.rat) {
    case RAT_NR:
        return signal.nr_rsrp;
    case RAT_LTE:
        return signal.lte_rsrp;
    case RAT_UMTS:
        return signal.umts_ecio;
    default:
        return std::nullopt;
    }
}

static std::optional<int64_t> number_of(const char *text)
{
    return text ? whole_number(text) : std::nullopt;
}

static std::optional<int64_t> whole(std::optional<int32_t> tenths)
{
    return tenths ? std::optional<int64_t>(*tenths / 10) : std::nullopt;
}

// The names of bands that begin with this letter, or of all with '\0': "B3 B7".
static void bands_of(const char *bands, char letter, char *text, size_t size)
{
    std::string_view rest = bands ? std::string_view(bands) : std::string_view();
    std::string_view band;
    size_t used = 0;
    text[0] = '\0';
    while (next_field(rest, band)) {
        if (band.empty() || (letter && band[0] != letter) || used + band.size() + 2 > size)
            continue;
        int length =
            snprintf(text + used, size - used, "%s%.*s", used ? " " : "", static_cast<int>(band.size()), band.data());
        size_t name = used + (used ? 1 : 0);
        if (text[name] == 'b')
            text[name] = 'B';
        used += static_cast<size_t>(length);
    }
}

static void json_bands(const char *bands)
{
    char text[64];
    std::string_view rest = bands ? std::string_view(bands) : std::string_view();
    std::string_view band;
    json_open("bands", '[');
    while (next_field(rest, band)) {
        snprintf(text, sizeof(text), "%.*s", static_cast<int>(band.size()), band.data());
        if (text[0] == 'b')
            text[0] = 'B';
        if (text[0])
            json_text(nullptr, text);
    }
    json_close();
}

void json_signal(const Signal &signal)
{
    json_bands(signal.bands);
    json_open("cell", '{');
    json_text("mcc", signal.mcc);
    json_text("mnc", signal.mnc);
    json_number("area", number_of(signal.area));
    json_number("cell_id", number_of(signal.cell_id));
    json_close();
    json_open("lte", '{');
    json_number("rsrp_dbm", whole(signal.lte_rsrp));
    json_tenths("rsrq_db", signal.lte_rsrq);
    json_tenths("sinr_db", signal.lte_sinr);
    json_close();
    json_open("nr", '{');
    json_number("rsrp_dbm", whole(signal.nr_rsrp));
    json_tenths("rsrq_db", signal.nr_rsrq);
    json_tenths("sinr_db", signal.nr_sinr);
    json_close();
    json_open("umts", '{');
    json_tenths("ecio_db", signal.umts_ecio);
    json_close();
}

static Colour colour_of(const char *word)
{
    return *word == 'e' || *word == 'g' ? Colour::green : *word == 'f' ? Colour::yellow : Colour::red;
}

static void print_figure(const char *name, std::optional<int32_t> tenths)
{
    if (tenths)
        print_piece("  %s %.1f dB", name, *tenths / 10.0);
}

// Bars and word, then the figures.
static void print_technology(int rat, const char *bands, std::optional<int32_t> level, std::optional<int32_t> quality,
                             std::optional<int32_t> noise)
{
    if (!level)
        return;
    char label[16];
    char bars[BARS_SIZE];
    snprintf(label, sizeof(label), "%s%s%s", rat_name(rat), *bands ? " " : "", bands);
    Limits limits = signal_limits(rat);
    write_bars(*level, limits.lowest, limits.highest, bars);
    const char *word = signal_word(rat, *level);
    row_begin(label);
    print_colour(colour_of(word));
    print_piece("%s %-9s", bars, word);
    print_colour(Colour::plain);
    if (rat == RAT_UMTS)
        print_figure("Ec/Io", level);
    else
        print_piece("  RSRP %d dBm", static_cast<int>(*level / 10));
    print_figure("RSRQ", quality);
    print_figure("SINR", noise);
    row_end();
}

void print_signal_rows(const Signal &signal)
{
    char lte[10];
    char nr[10];
    bands_of(signal.bands, 'b', lte, sizeof(lte));
    bands_of(signal.bands, 'n', nr, sizeof(nr));
    print_technology(RAT_NR, nr, signal.nr_rsrp, signal.nr_rsrq, signal.nr_sinr);
    print_technology(RAT_LTE, lte, signal.lte_rsrp, signal.lte_rsrq, signal.lte_sinr);
    print_technology(RAT_UMTS, signal.rat == RAT_UMTS ? lte : "", signal.umts_ecio, std::nullopt, std::nullopt);
    if (!leading_figure(signal) && !signal.nr_rsrp && !signal.lte_rsrp && !signal.umts_ecio)
        print_row("Signal", "%s", signal.known && !signal.rat ? "none, no cell" : "unknown");
}
