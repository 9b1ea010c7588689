#include "commands.h"

#include <fmt/format.h>

namespace modemsim {

namespace {

/// A setting that is one number: read, tested and set in the usual way.
struct Switch {
    std::string_view name;
    int Settings::*setting;
    int Kept::*kept;
    int low;
    int high;
};

constexpr Switch switches[] = {
    {"+CMEE", &Settings::cmee, nullptr, 0, 2},
    {"+CLIP", &Settings::clip, nullptr, 0, 1},
    {"+GTPCMOUT", nullptr, &Kept::pcm_out, 0, 1},
    {"+MSMPD", nullptr, &Kept::msmpd, 0, 1},
    {"+SIMSWAPCFG", nullptr, &Kept::simswap, 0, 1},
    {"+CAVIMS", nullptr, &Kept::ims, 0, 1},
    {"+GTINTFMODE", nullptr, &Kept::interface_mode, 0, 2},
    {"+GTROAMCFG", nullptr, &Kept::roaming, 0, 1},
};

Reply number_switch(Modem &modem, const AtCommand &command)
{
    for (const Switch &row : switches) {
        if (row.name != command.name)
            continue;
        int &value = row.setting != nullptr ? modem.state.settings.*row.setting : modem.state.kept.*row.kept;
        switch (command.form) {
        case Form::read:
            return reply_line(fmt::format("{}: {}", row.name, value));
        case Form::test:
            return reply_line(fmt::format("{}: ({}-{})", row.name, row.low, row.high));
        case Form::set: {
            std::optional<int> wanted = command.number(0);
            if (!wanted || *wanted < row.low || *wanted > row.high)
                return reply_error();
            value = *wanted;
            return reply_ok();
        }
        case Form::execute:
            return reply_error();
        }
    }
    return reply_error();
}

Reply plain_ok(Modem &, const AtCommand &)
{
    return reply_ok();
}

Reply echo(Modem &modem, const AtCommand &command)
{
    int wanted = command.number(0).value_or(0);
    if (wanted > 1)
        return reply_error();
    modem.state.settings.echo = wanted == 1;
    return reply_ok();
}

Reply defaults(Modem &modem, const AtCommand &)
{
    modem.state.settings.echo = true;
    modem.state.settings.cmee = modem.state.after_restart.cmee;
    return reply_ok();
}

Reply functionality(Modem &modem, const AtCommand &command)
{
    if (command.form == Form::read)
        return reply_line(fmt::format("+CFUN: {},0", modem.state.settings.cfun));
    if (command.form == Form::test)
        return reply_line("+CFUN: (0,1,4,15),(0-1)");
    std::optional<int> level = command.number(0);
    if (!level)
        return reply_error();
    if (*level == 15 || *level == 6 || (*level == 1 && command.number(1) == 1)) {
        modem.restart(modem.state.behaviour.restart_ms);
        return reply_ok();
    }
    if (*level != 0 && *level != 1 && *level != 4)
        return reply_error();
    modem.set_radio(*level);
    return reply_ok();
}

/// AT+GTSET="<name>",<value>; only the stand-alone switch has an effect.
Reply vendor_set(Modem &modem, const AtCommand &command)
{
    if (command.form == Form::read)
        return reply_line(fmt::format("+GTSET: \"5GSACTR\",{}", modem.state.kept.sa));
    std::optional<int> value = command.number(1);
    if (command.form != Form::set || command.text(0) != "5GSACTR" || !value || *value > 1)
        return reply_error();
    modem.state.kept.sa = *value;
    return reply_ok();
}

Reply pcm_loopback(Modem &modem, const AtCommand &command)
{
    int &mode = modem.state.settings.pcm_loopback;
    if (command.form == Form::read)
        return reply_line(fmt::format("+GTPCMLOOPBACK: {}", mode));
    std::optional<int> on = command.number(0);
    if (command.form != Form::set || !on || *on > 1 || (*on == 1 && !command.number(1)))
        return reply_error();
    mode = *on == 1 ? command.number(1).value_or(0) : 0;
    return reply_ok();
}

struct FixedAnswer {
    std::string_view name;
    Form form;
    std::string_view value;
};

constexpr FixedAnswer fixed_answers[] = {
    {"+GTDUALSIM", Form::read, "0,\"SUB1\",\"No Service\""},
    {"+GTDUALSIM", Form::test, "(0,1)"},
    {"+GTUSBMODE", Form::read, "32"},
    {"+GTUSBMODE", Form::test, "(17-18,20-21,24,29-33)"},
    {"+GTCELLLOCK", Form::read, "0"},
    {"+GTCELLLOCK", Form::test, "(0,1,2),(0-2),(0,1),(0-4294967295),(0-1007),(0-1),(501-50261)"},
};

Reply fixed(Modem &, const AtCommand &command)
{
    for (const FixedAnswer &row : fixed_answers)
        if (row.name == command.name && row.form == command.form)
            return reply_line(fmt::format("{}: {}", row.name, row.value));
    return reply_error();
}

constexpr CommandRow table[] = {
    {"E", echo},
    {"Z", defaults},
    {"&F", defaults},
    {"V", plain_ok},
    {"Q", plain_ok},
    {"+CMEE", number_switch},
    {"+CLIP", number_switch},
    {"+GTPCMOUT", number_switch},
    {"+MSMPD", number_switch},
    {"+SIMSWAPCFG", number_switch},
    {"+CAVIMS", number_switch},
    {"+GTINTFMODE", number_switch},
    {"+GTROAMCFG", number_switch},
    {"+CFUN", functionality},
    {"+GTSET", vendor_set},
    {"+GTPCMLOOPBACK", pcm_loopback},
    {"+GTDUALSIM", fixed},
    {"+GTUSBMODE", fixed},
    {"+GTCELLLOCK", fixed},
};

} // namespace

std::span<const CommandRow> settings_commands()
{
    return table;
}

} // namespace modemsim
