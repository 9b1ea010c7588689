#include "commands.h"

#include <fmt/format.h>

#include "refusals.h"

namespace modemsim {

namespace {

/// The maker's identity commands: bare on execution, prefixed and quoted when read.
Reply identity(const AtCommand &command, const std::string &value)
{
    switch (command.form) {
    case Form::execute:
        return reply_line(value);
    case Form::read:
        return reply_line(fmt::format("{}: \"{}\"", command.name, value));
    case Form::test:
        return reply_ok();
    case Form::set:
        return reply_error();
    }
    return reply_error();
}

Reply manufacturer(Modem &modem, const AtCommand &command)
{
    return identity(command, modem.state.identity.manufacturer);
}

Reply model(Modem &modem, const AtCommand &command)
{
    return identity(command, modem.state.identity.model);
}

Reply revision(Modem &modem, const AtCommand &command)
{
    return identity(command, modem.state.identity.revision);
}

Reply imei(Modem &modem, const AtCommand &command)
{
    const std::string &value = modem.state.identity.imei;
    if (command.form == Form::set)
        return command.number(0) == 1 ? reply_line(fmt::format("+CGSN: \"{}\"", value)) : cme(modem, 50);
    return identity(command, value);
}

Reply serial(Modem &modem, const AtCommand &)
{
    return reply_line(fmt::format("+CFSN: \"{}\"", modem.state.identity.serial));
}

Reply package(Modem &modem, const AtCommand &)
{
    return reply_line(fmt::format("+GTPKGVER: \"{}\"", modem.state.identity.package));
}

Reply imsi(Modem &modem, const AtCommand &command)
{
    if (int refusal = card_refusal(modem))
        return cme(modem, refusal);
    return command.form == Form::test ? reply_ok() : identity(command, modem.state.sim.imsi);
}

Reply iccid(Modem &modem, const AtCommand &command)
{
    if (modem.state.sim.state == SimState::absent || !modem.sim_awake)
        return cme(modem, 13);
    return reply_line(fmt::format("{}: {}", command.name, modem.state.sim.iccid));
}

Reply own_number(Modem &modem, const AtCommand &)
{
    if (!modem.sim_usable())
        return reply_error();
    const std::string &number = modem.state.sim.msisdn;
    if (number.empty())
        return reply_ok();
    return reply_line(fmt::format("+CNUM: ,\"{}\",{}", number, number.starts_with('+') ? 145 : 161));
}

Reply information(Modem &modem, const AtCommand &command)
{
    const Identity &id = modem.state.identity;
    switch (command.number(0).value_or(-1)) {
    case 0:
        return reply_line("\"2023/03/09 16:59\"");
    case 3:
    case 7:
        return reply_line(fmt::format("\"{}\"", id.model));
    case 8:
        return reply_line(fmt::format("\"{}\"", id.revision));
    case 9:
        return reply_line(fmt::format("\"{}\"", id.hardware));
    case -1: {
        Reply reply;
        reply.lines = {"Manufacturer: " + id.manufacturer,
                       "Model: " + id.model,
                       "Revision: " + id.revision,
                       "SVN: 02",
                       "IMEI: " + id.imei,
                       "+GCAP: +CGSM"};
        return reply;
    }
    default:
        return reply_error();
    }
}

constexpr CommandRow table[] = {
    {"I", information},  {"+CGMI", manufacturer}, {"+GMI", manufacturer}, {"+CGMM", model},  {"+GMM", model},
    {"+CGMR", revision}, {"+GMR", revision},      {"+CGSN", imei},        {"+GSN", imei},    {"+CIMI", imsi},
    {"+CCID", iccid},    {"+ICCID", iccid},       {"+CNUM", own_number},  {"+CFSN", serial}, {"+GTPKGVER", package},
};

} // namespace

std::span<const CommandRow> identity_commands()
{
    return table;
}

} // namespace modemsim
