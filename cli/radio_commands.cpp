#include "radio_commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libubus.h>
}

#include "bus.h"
#include "json.h"
#include "output.h"
#include "radio_figures.h"
#include "result_text.h"
#include "signal_view.h"
#include "table.h"
#include "text.h"

constexpr int32_t LONGEST_PAUSE_S = 3600;
constexpr int32_t USUAL_PAUSE_S = 2;
constexpr int SCAN_TIMEOUT_MS = 180000;

// 3GPP TS 27.007 8.5, in dBm.
static std::optional<int64_t> rssi_dbm(const Reply &reply)
{
    std::optional<int32_t> index = reply.number("rssi");
    if (!index || *index < 0 || *index > 31)
        return std::nullopt;
    return -113 + 2 * *index;
}

// ---- signal

static int show_signal()
{
    Reply cells;
    Reply strength;
    (void)bus_call("get_current_cell_info_explained", nullptr, cells); // without a cell it is not done either
    if (!cells.answered)
        return explain("signal", cells);
    bool known = bus_call("get_rssi", nullptr, strength);
    if (!has_figures(cells))
        return explain("signal", known ? cells : strength);
    std::optional<int64_t> rssi = rssi_dbm(strength);
    Signal signal = read_signal(cells);
    json_open(nullptr, '{');
    json_text("technology", rat_name(signal.rat));
    json_signal(signal);
    json_number("rssi_dbm", rssi);
    json_close();
    print_signal_rows(signal);
    if (rssi)
        print_row("RSSI", "%d dBm", static_cast<int>(*rssi));
    return EXIT_DONE;
}

// The levels so far, the youngest last.
struct History {
    static constexpr size_t MOST = 256;
    uint8_t blocks[MOST][4];
    size_t count;
};

static void remember(History &history, const char *block)
{
    if (history.count == History::MOST) {
        memmove(history.blocks[0], history.blocks[1], sizeof(history.blocks) - sizeof(history.blocks[0]));
        history.count--;
    }
    strncpy(reinterpret_cast<char *>(history.blocks[history.count++]), block, 3);
}

static void figure_text(std::optional<int32_t> tenths, const char *name, const char *unit, char *text, size_t size)
{
    text[0] = '\0';
    if (tenths && strcmp(unit, "dBm") == 0)
        snprintf(text, size, "  %s %d dBm", name, static_cast<int>(*tenths / 10));
    else if (tenths)
        snprintf(text, size, "  %s %5.1f dB", name, *tenths / 10.0);
}

// One sample: figures and, on a terminal, the sparkline behind them in the same line.
static void print_sample(const Signal &signal, const char *trouble, History &history)
{
    char level[32];
    char quality[32];
    char noise[32];
    char line[160];
    std::optional<int32_t> figure = leading_figure(signal);
    bool nr = signal.rat == RAT_NR;
    bool umts = signal.rat == RAT_UMTS;
    figure_text(figure, umts ? "Ec/Io" : "RSRP", umts ? "dB" : "dBm", level, sizeof(level));
    figure_text(nr ? signal.nr_rsrq : signal.lte_rsrq, "RSRQ", "dB", quality, sizeof(quality));
    figure_text(nr ? signal.nr_sinr : signal.lte_sinr, "SINR", "dB", noise, sizeof(noise));
    Limits limits = signal_limits(signal.rat);
    remember(history, figure ? spark(*figure, limits.lowest, limits.highest) : "·");
    if (figure)
        snprintf(line, sizeof(line), "%-4s%s%s%s", rat_name(signal.rat), level, quality, noise);
    else
        snprintf(line, sizeof(line), "%s", trouble);
    restart_line();
    print_piece("%s", line);
    if (!output_is_terminal()) {
        row_end();
        return;
    }
    size_t taken = text_width(line) + 3; // the last column stays free: some terminals begin a new line there
    size_t room = output_width() > taken ? output_width() - taken : 0;
    print_piece("  ");
    for (size_t i = history.count - std::min(history.count, room); i < history.count; i++)
        print_piece("%s", reinterpret_cast<const char *>(history.blocks[i]));
}

// Until Ctrl-C, or the daemon goes away; a modem that is busy or silent is shown as such.
static int watch_signal(int32_t pause_s)
{
    static History history = {};
    (void)bus_wait(0); // Ctrl-C ends cleanly from here on
    for (;;) {
        int64_t began = now_ms();
        Reply reply;
        (void)bus_call("get_current_cell_info_explained", nullptr, reply); // shown whatever it is
        if (bus_interrupted() || describe_failure(reply, nullptr, 0) == EXIT_NO_DAEMON) {
            if (output_is_terminal())
                row_end();
            return bus_interrupted() ? int{EXIT_DONE} : explain("signal", reply);
        }
        const char *trouble = has_figures(reply) ? "no signal" : "the modem does not answer";
        Signal signal = read_signal(reply);
        json_open(nullptr, '{');
        json_text("technology", rat_name(signal.rat));
        json_signal(signal);
        json_close();
        print_sample(signal, trouble, history);
        output_flush();
        int64_t left = int64_t{pause_s} * 1000 - (now_ms() - began);
        if (bus_wait(static_cast<int>(std::max<int64_t>(left, 0))) == WaitEnd::interrupted) {
            if (output_is_terminal())
                row_end();
            return EXIT_DONE;
        }
    }
}

int command_signal(const Arguments &arguments)
{
    int32_t pause_s = USUAL_PAUSE_S;
    if (arguments.count == 0)
        return show_signal();
    if (strcmp(arguments.at(0), "--watch") != 0)
        return usage_error("signal", "what is %s?", arguments.at(0));
    if (arguments.at(1) && !parse_number(arguments.at(1), 1, LONGEST_PAUSE_S, &pause_s))
        return usage_error("signal", "--watch takes seconds from 1 to %d", static_cast<int>(LONGEST_PAUSE_S));
    return watch_signal(pause_s);
}

// ---- cells

// A level of UMTS is another one than the column says; in JSON it has a member of its own.
static void cell_level(const char *name, std::optional<int32_t> tenths, const char *shown)
{
    char named[24];
    snprintf(named, sizeof(named), "%s %s", name, shown);
    cell_text(nullptr, !tenths ? nullptr : *name ? named : shown);
}

static void cell_levels(const Cell &cell)
{
    bool umts = cell.rat == RAT_UMTS;
    char level[16];
    char quality[16];
    std::optional<int64_t> dbm = cell.rsrp ? std::optional<int64_t>(*cell.rsrp / 10) : std::nullopt;
    snprintf(level, sizeof(level), "%d", static_cast<int>(dbm.value_or(0)));
    snprintf(quality, sizeof(quality), "%.1f", cell.rsrq.value_or(0) / 10.0);
    cell_level(umts ? "RSCP" : "", cell.rsrp, level);
    cell_level(umts ? "Ec/Io" : "", cell.rsrq, quality);
    cell_tenths(cell.sinr);
    cell_number(umts ? std::nullopt : dbm);
    cell_tenths(umts ? std::nullopt : cell.rsrq);
    cell_number(umts ? dbm : std::nullopt);
    cell_tenths(umts ? cell.rsrq : std::nullopt);
}

static void cell_view(std::string_view text)
{
    char copy[16];
    snprintf(copy, sizeof(copy), "%.*s", static_cast<int>(text.size()), text.data());
    cell_text(text.empty() ? nullptr : copy);
}

static void cell_band(const Cell &cell)
{
    char band[24];
    snprintf(band, sizeof(band), "%c%d", cell.rat == RAT_NR ? 'n' : 'B', static_cast<int>(cell.band.value_or(0)));
    cell_text(cell.band ? band : nullptr);
}

static const Column cell_columns[] = {
    {"serving", "CELL", false}, {"technology", "RAT", false}, {"band", "BAND", false}, {"arfcn", "ARFCN", true},
    {"pci", "PCI", true},       {"", "RSRP dBm", true},       {"", "RSRQ dB", true},   {"sinr_db", "SINR dB", true},
    {"rsrp_dbm", "", true},     {"rsrq_db", "", true},        {"rscp_dbm", "", true},  {"ecio_db", "", true},
    {"mcc", "", false},         {"mnc", "", false},           {"area", "TAC", true},   {"cell_id", "CELL ID", true},
};

static void cell_row(const Cell &cell)
{
    cell_bool(cell.serving, "serving", "neighbour");
    cell_text(rat_name(cell.rat));
    cell_band(cell);
    cell_number(cell.arfcn);
    cell_number(cell.pci);
    cell_levels(cell);
    cell_view(cell.mcc);
    cell_view(cell.mnc);
    cell_number(cell.area);
    cell_number(cell.id);
}

int command_cells(const Arguments &)
{
    Reply reply;
    if (!bus_at_command("AT+GTCCINFO?", reply))
        return explain("cells", reply);
    const char *answer = reply.text("resp");
    std::string_view rest(answer ? answer : "");
    if (rest.find("ERROR") != std::string_view::npos)
        return fail(EXIT_REFUSED, "cells: the modem does not list its cells now");
    bool labelled = false;
    Cell cell;
    json_open(nullptr, '{');
    table_begin("cells", cell_columns);
    while (next_cell(rest, &labelled, &cell))
        cell_row(cell);
    bool good = table_end("no cells");
    json_close();
    return good ? EXIT_DONE : fail(EXIT_REFUSED, "cells: out of memory");
}

// ---- scan

static bool on_modem_event(const char *, blob_attr *message, void *)
{
    const blobmsg_policy policy = {"event", BLOBMSG_TYPE_STRING};
    blob_attr *event = nullptr;
    if (message)
        blobmsg_parse(&policy, 1, &event, blob_data(message), static_cast<unsigned int>(blob_len(message)));
    return event && strcmp(blobmsg_get_string(event), "scan_complete") == 0;
}

static int wait_for_scan(int timeout_ms)
{
    int64_t began = now_ms();
    for (;;) {
        int64_t passed = now_ms() - began;
        restart_line();
        if (output_is_terminal())
            print_piece("scanning, this may take three minutes: %d s", static_cast<int>(passed / 1000));
        output_flush();
        WaitEnd end = bus_wait(static_cast<int>(std::clamp<int64_t>(timeout_ms - passed, 0, 1000)));
        restart_line();
        switch (end) {
        case WaitEnd::happened:
            return EXIT_DONE;
        case WaitEnd::interrupted:
            return fail(EXIT_REFUSED, "scan: interrupted; the modem goes on scanning");
        case WaitEnd::connection_lost:
            return fail(EXIT_NO_DAEMON, "scan: the bus is gone");
        case WaitEnd::timed_out:
            if (now_ms() - began >= timeout_ms)
                return fail(EXIT_TIMED_OUT, "scan: no end of the scan within %d s", timeout_ms / 1000);
        }
    }
}

static void scan_row(const char *technology)
{
    if (strcmp(technology, "E-UTRAN") == 0)
        cell_text("LTE");
    else if (strcmp(technology, "UTRAN") == 0)
        cell_text("GSM/UMTS", "GSM or UMTS");
    else
        cell_text(technology);
}

// The daemon leaves what was found in the router's settings, not committed: a list of words without blanks.
static bool list_networks()
{
    char line[2048] = "";
    FILE *settings = popen("uci -q get modem.scan.network", "r");
    if (!settings)
        return false;
    if (!fgets(line, sizeof(line), settings))
        line[0] = '\0';     // no such list: nothing was found
    (void)pclose(settings); // fails as well when nothing was found
    char *state = nullptr;
    for (char *word = strtok_r(line, " '\n", &state); word; word = strtok_r(nullptr, " '\n", &state))
        scan_row(word);
    return true;
}

int command_scan(const Arguments &)
{
    static const Column columns[] = {{"technology", "NETWORKS FOUND", false}};
    int timeout_ms = options.timeout_ms ? options.timeout_ms : SCAN_TIMEOUT_MS;
    int status = bus_listen("modem", on_modem_event, nullptr);
    if (status != UBUS_STATUS_OK)
        return fail(EXIT_NO_DAEMON, "scan: no connection to the bus");
    Reply reply;
    if (!bus_call("scan_network", nullptr, reply) && (!reply.answered || reply.result != -1)) // -1: one is running
        return explain("scan", reply);
    int code = wait_for_scan(timeout_ms);
    if (code != EXIT_DONE)
        return code;
    json_open(nullptr, '{');
    table_begin("networks", columns);
    bool good = list_networks();
    good = table_end("no networks found") && good;
    json_close();
    return good ? EXIT_DONE : fail(EXIT_REFUSED, "scan: the list of networks cannot be read");
}
