#include "commands.h"

#include <algorithm>
#include <fmt/format.h>

namespace modemsim {

namespace {

// The reported values of 3GPP TS 27.007 8.69 (AT+CESQ) and 8.5 (AT+CSQ).

int rssi_index(int dbm)
{
    return std::clamp((dbm + 113) / 2, 0, 31);
}

int lte_rsrp(int dbm)
{
    return std::clamp(dbm + 141, 0, 97);
}

int lte_rsrq(int db)
{
    return std::clamp((db + 20) * 2, 0, 34);
}

int nr_rsrp(int dbm)
{
    return std::clamp(dbm + 157, 0, 127);
}

int nr_rsrq(int db)
{
    return std::clamp((db + 43) * 2 + 1, 0, 127);
}

int nr_sinr(int db)
{
    return std::clamp((db + 23) * 2 + 1, 0, 127);
}

int umts_rscp(int dbm)
{
    return std::clamp(dbm + 121, 0, 96);
}

int umts_ecno(int db)
{
    return std::clamp((db + 24) * 2 + 1, 0, 49);
}

Reply signal_quality(Modem &modem, const AtCommand &command)
{
    if (command.form == Form::test)
        return reply_line("+CSQ: (0-31,99),(0-7,99)");
    if (modem.cell() == CellKind::none)
        return reply_line("+CSQ: 99,99");
    return reply_line(fmt::format("+CSQ: {},99", rssi_index(modem.state.network.rssi)));
}

Reply extended_quality(Modem &modem, const AtCommand &)
{
    const Network &network = modem.state.network;
    CellKind kind = modem.cell();
    int rscp = 255, ecno = 255, rsrq = 255, rsrp = 255, ss_rsrq = 255, ss_rsrp = 255, ss_sinr = 255;
    if (kind == CellKind::umts) {
        rscp = umts_rscp(network.umts.rsrp);
        ecno = umts_ecno(network.umts.rsrq);
    }
    if (kind == CellKind::lte || kind == CellKind::endc) {
        rsrq = lte_rsrq(network.lte.rsrq);
        rsrp = lte_rsrp(network.lte.rsrp);
    }
    if (kind == CellKind::nr || kind == CellKind::endc) {
        ss_rsrq = nr_rsrq(network.nr.rsrq);
        ss_rsrp = nr_rsrp(network.nr.rsrp);
        ss_sinr = nr_sinr(network.nr.sinr);
    }
    return reply_line(
        fmt::format("+CESQ: 99,99,{},{},{},{},{},{},{}", rscp, ecno, rsrq, rsrp, ss_rsrq, ss_rsrp, ss_sinr));
}

std::string lte_row(const Network &network, const Cell &cell)
{
    int level = lte_rsrp(cell.rsrp);
    return fmt::format("1,4,{},{},{:X},{:X},{:X},{:X},{},{},{},{},{},{}", network.mcc, network.mnc, cell.tac,
                       cell.cellid, cell.arfcn, cell.pci, cell.band, cell.bandwidth, cell.sinr * 2, level, level,
                       lte_rsrq(cell.rsrq));
}

std::string nr_row(const Network &network, const Cell &cell)
{
    int level = nr_rsrp(cell.rsrp);
    return fmt::format("1,9,{},{},{:X},{:X},{:X},{:X},{},{},{},{},{},{}", network.mcc, network.mnc, cell.tac,
                       cell.cellid, cell.arfcn, cell.pci, cell.band, cell.bandwidth, nr_sinr(cell.sinr), level, level,
                       nr_rsrq(cell.rsrq));
}

std::string umts_row(const Network &network, const Cell &cell)
{
    int level = umts_rscp(cell.rsrp);
    int quality = umts_ecno(cell.rsrq);
    return fmt::format("1,2,{},{},{:X},{:X},{:X},{:X},{},{},{},1,{},0,{}", network.mcc, network.mnc, cell.tac,
                       cell.cellid, cell.arfcn, cell.pci, cell.band, quality, level, level, quality);
}

void add_lte_neighbours(const Network &network, std::vector<std::string> &lines)
{
    lines.push_back("LTE neighbor cell: ");
    for (const Cell &cell : network.neighbours) {
        int level = lte_rsrp(cell.rsrp);
        lines.push_back(
            fmt::format("2,4,,,,,{:X},{:X},,{},{},{}", cell.arfcn, cell.pci, level, level, lte_rsrq(cell.rsrq)));
    }
}

Reply cells(Modem &modem, const AtCommand &command)
{
    if (command.form != Form::read)
        return command.form == Form::test ? reply_ok() : reply_error();
    const Network &network = modem.state.network;
    Reply reply = reply_line("+GTCCINFO: ");
    switch (modem.cell()) {
    case CellKind::none:
        break;
    case CellKind::lte:
        reply.lines.push_back("LTE service cell: ");
        reply.lines.push_back(lte_row(network, network.lte));
        add_lte_neighbours(network, reply.lines);
        break;
    case CellKind::endc:
        reply.lines.push_back("LTE-NR EN-DC service cell: ");
        reply.lines.push_back(lte_row(network, network.lte));
        reply.lines.push_back(nr_row(network, network.nr));
        add_lte_neighbours(network, reply.lines);
        break;
    case CellKind::nr:
        reply.lines.push_back("NR service cell: ");
        reply.lines.push_back(nr_row(network, network.nr));
        break;
    case CellKind::umts:
        reply.lines.push_back("UMTS service cell: ");
        reply.lines.push_back(umts_row(network, network.umts));
        break;
    }
    return reply;
}

Reply carriers(Modem &modem, const AtCommand &)
{
    const Network &network = modem.state.network;
    if (!modem.has_service() || modem.cell() != CellKind::lte)
        return reply_ok();
    return reply_line(fmt::format("PCC: {},{},{},{},0,1,0,0,{}", network.lte.band, network.lte.pci, network.lte.arfcn,
                                  network.lte.bandwidth, lte_rsrp(network.lte.rsrp)));
}

Reply cell_report(Modem &modem, const AtCommand &command)
{
    int &enabled = modem.state.settings.cellinfo;
    std::optional<int> wanted = command.number(0);
    switch (command.form) {
    case Form::set:
        if (!wanted || *wanted > 1)
            return reply_error();
        enabled = *wanted;
        return reply_ok();
    case Form::test:
        return reply_line("+GTCELLINFO: (0,1)");
    case Form::execute:
        return reply_error();
    case Form::read:
        break;
    }
    CellKind kind = modem.cell();
    Reply reply = reply_line(fmt::format("+GTCELLINFO: {}", enabled));
    if (enabled == 0 || kind == CellKind::none || kind == CellKind::umts)
        return reply;
    bool nr = kind == CellKind::nr;
    reply.lines.push_back(nr ? "NR:" : kind == CellKind::endc ? "ENDC:" : "LTE:");
    if (nr || kind == CellKind::endc)
        reply.lines.push_back("BeamID: 3");
    for (const char *line : {"CQI: 15", "Power: 2", "RANK: RANK1", "DLMCS: 5", "ULMCS: 22"})
        reply.lines.push_back(line);
    return reply;
}

constexpr CommandRow table[] = {
    {"+CSQ", signal_quality}, {"+CESQ", extended_quality},  {"+GTCCINFO", cells},
    {"+GTCAINFO", carriers},  {"+GTCELLINFO", cell_report},
};

} // namespace

std::span<const CommandRow> cell_commands()
{
    return table;
}

} // namespace modemsim
