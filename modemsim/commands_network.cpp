#include "commands.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "refusals.h"

namespace modemsim {

namespace {

constexpr int rats[] = {1, 2, 4, 10, 14, 16, 17, 20};
constexpr int preferences[] = {2, 3, 6};
constexpr int umts_bands[] = {1, 8};
constexpr int lte_bands[] = {101, 103, 105, 108, 134, 138, 139, 140, 141};
constexpr int nr_bands[] = {501, 5028, 5041, 5078, 5079};

template<size_t N> bool contains(const int (&list)[N], int value)
{
    return std::find(list, list + N, value) != list + N;
}

/// The access technology number of AT+COPS and AT+CREG as the maker counts it.
int act(CellKind kind)
{
    switch (kind) {
    case CellKind::lte:
        return 7;
    case CellKind::nr:
        return 11;
    case CellKind::endc:
        return 13;
    case CellKind::umts:
        return 2;
    case CellKind::none:
        break;
    }
    return 0;
}

const Cell &anchor(const Modem &modem, CellKind kind)
{
    const Network &network = modem.state.network;
    return kind == CellKind::nr ? network.nr : kind == CellKind::umts ? network.umts : network.lte;
}

/// True when the domain that the command asks for exists on this cell.
bool has_domain(std::string_view name, CellKind kind)
{
    if (name == "+CEREG")
        return kind == CellKind::lte || kind == CellKind::endc;
    if (name == "+C5GREG")
        return kind == CellKind::nr;
    if (name == "+CGREG")
        return kind != CellKind::nr;
    return true;
}

Reply registration(Modem &modem, const AtCommand &command)
{
    Settings &settings = modem.state.settings;
    int &mode = command.name == "+CREG"    ? settings.creg
                : command.name == "+CGREG" ? settings.cgreg
                : command.name == "+CEREG" ? settings.cereg
                                           : settings.c5greg;
    if (command.form == Form::test)
        return reply_line(fmt::format("{}: (0-2)", command.name));
    if (command.form == Form::set) {
        std::optional<int> wanted = command.number(0);
        if (!wanted || *wanted > 2)
            return reply_error();
        mode = *wanted;
        return reply_ok();
    }
    CellKind kind = modem.cell();
    Registration now = modem.registration();
    int stat = static_cast<int>(now);
    if (now != Registration::searching && now != Registration::off && !has_domain(command.name, kind))
        stat = 0;
    bool located = mode == 2 && (stat == 1 || stat == 5);
    if (!located)
        return reply_line(fmt::format("{}: {},{}", command.name, mode, stat));
    const Cell &cell = anchor(modem, kind);
    return reply_line(
        fmt::format("{}: {},{},\"{:X}\",\"{:08X}\",{}", command.name, mode, stat, cell.tac, cell.cellid, act(kind)));
}

std::string operator_text(const Network &network, int format)
{
    return format == 2 ? network.mcc + network.mnc : format == 1 ? network.brief : network.name;
}

Reply scan(const Modem &modem)
{
    std::string groups;
    for (const Operator &one : modem.state.network.operators)
        groups += fmt::format("({},\"{}\",\"{}\",\"{}\",{}),", one.stat, one.name, one.brief, one.numeric, one.act);
    Reply reply = reply_line(fmt::format("+COPS: {},(0,1,2,3,4,5),(0,1,2)", groups));
    if (!modem.radio_on())
        reply = cme(modem, 30);
    reply.delay_ms = modem.state.behaviour.scan_ms;
    reply.kind = ReplyKind::scan;
    return reply;
}

Reply choose_operator(Modem &modem, const AtCommand &command)
{
    Settings &settings = modem.state.settings;
    std::optional<int> mode = command.number(0);
    std::optional<int> format = command.number(1);
    if (!mode || *mode > 4 || (command.has(1) && (!format || *format > 2)))
        return reply_error();
    if (format)
        settings.cops_format = *format;
    if (*mode == 3)
        return reply_ok();
    if (*mode == 1 || *mode == 4) {
        const auto &known = modem.state.network.operators;
        const std::string &wanted = command.text(2);
        bool found = std::any_of(known.begin(), known.end(), [&](const Operator &one) {
            return one.stat != 3 && (one.numeric == wanted || one.name == wanted || one.brief == wanted);
        });
        if (!found)
            return cme(modem, 30);
    }
    settings.cops_mode = *mode;
    modem.search_network();
    return reply_ok();
}

Reply operators(Modem &modem, const AtCommand &command)
{
    switch (command.form) {
    case Form::test:
        return scan(modem);
    case Form::set:
        return choose_operator(modem, command);
    case Form::read:
        break;
    case Form::execute:
        return reply_error();
    }
    const Settings &settings = modem.state.settings;
    if (!modem.has_service())
        return reply_line(fmt::format("+COPS: {}", settings.cops_mode));
    return reply_line(fmt::format("+COPS: {},{},\"{}\",{}", settings.cops_mode, settings.cops_format,
                                  operator_text(modem.state.network, settings.cops_format), act(modem.cell())));
}

bool known_band(int band)
{
    return contains(umts_bands, band) || contains(lte_bands, band) || contains(nr_bands, band);
}

std::vector<int> every_band()
{
    std::vector<int> all(std::begin(umts_bands), std::end(umts_bands));
    all.insert(all.end(), std::begin(lte_bands), std::end(lte_bands));
    all.insert(all.end(), std::begin(nr_bands), std::end(nr_bands));
    return all;
}

Reply set_rat(Modem &modem, const AtCommand &command, bool with_bands)
{
    Kept wanted = modem.state.kept;
    int *const fields[] = {&wanted.rat, &wanted.pref1, &wanted.pref2};
    for (size_t i = 0; i < 3; i++) {
        if (!command.has(i))
            continue;
        std::optional<int> value = command.number(i);
        if (!value || !(i == 0 ? contains(rats, *value) : contains(preferences, *value)))
            return reply_error();
        *fields[i] = *value;
    }
    if (command.args.size() > 3) {
        wanted.bands.clear();
        for (size_t i = 3; i < command.args.size(); i++) {
            std::optional<int> band = command.number(i);
            if (!with_bands || !band || !known_band(*band))
                return reply_error();
            wanted.bands.push_back(*band);
        }
    } else if (with_bands) {
        wanted.bands = every_band();
    }
    CellKind before = modem.cell();
    modem.state.kept = wanted;
    if (modem.cell() != before)
        modem.search_network();
    return reply_ok();
}

Reply rat_and_bands(Modem &modem, const AtCommand &command)
{
    const Kept &kept = modem.state.kept;
    if (command.form == Form::read)
        return reply_line(
            fmt::format("+GTACT: {},{},{},{}", kept.rat, kept.pref1, kept.pref2, fmt::join(kept.bands, ",")));
    if (command.form == Form::test)
        return reply_line(fmt::format("+GTACT: ({}),({}),({}),,({}),({}),,,({})", fmt::join(rats, ","),
                                      fmt::join(preferences, ","), fmt::join(preferences, ","),
                                      fmt::join(umts_bands, ","), fmt::join(lte_bands, ","), fmt::join(nr_bands, ",")));
    return set_rat(modem, command, true);
}

Reply rat(Modem &modem, const AtCommand &command)
{
    const Kept &kept = modem.state.kept;
    if (command.form == Form::read)
        return reply_line(fmt::format("+GTRAT: {},{},{}", kept.rat, kept.pref1, kept.pref2));
    if (command.form == Form::test)
        return reply_line(fmt::format("+GTRAT: ({}),({}),({})", fmt::join(rats, ","), fmt::join(preferences, ","),
                                      fmt::join(preferences, ",")));
    return set_rat(modem, command, false);
}

constexpr CommandRow table[] = {
    {"+CREG", registration}, {"+CGREG", registration},  {"+CEREG", registration}, {"+C5GREG", registration},
    {"+COPS", operators},    {"+GTACT", rat_and_bands}, {"+GTRAT", rat},
};

} // namespace

std::span<const CommandRow> network_commands()
{
    return table;
}

} // namespace modemsim
