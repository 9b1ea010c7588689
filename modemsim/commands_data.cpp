#include "commands.h"

#include <fmt/format.h>

#include "refusals.h"

namespace modemsim {

namespace {

constexpr int highest_cid = 15;

bool known_type(const std::string &type)
{
    return type == "IP" || type == "IPV6" || type == "IPV4V6";
}

std::string address(const Modem &modem, int cid, const Context &context)
{
    const Behaviour &behaviour = modem.state.behaviour;
    bool up = modem.context_has_address(cid);
    std::string v4 = up ? behaviour.ipv4 : "0.0.0.0";
    std::string v6 = up ? behaviour.ipv6 : "0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0";
    return context.type == "IP" ? v4 : context.type == "IPV6" ? v6 : v4 + "," + v6;
}

Reply define_context(Modem &modem, const AtCommand &command)
{
    auto &contexts = modem.state.kept.contexts;
    if (command.form == Form::read) {
        Reply reply;
        for (const auto &[cid, context] : contexts)
            reply.lines.push_back(fmt::format("+CGDCONT: {},\"{}\",\"{}\",\"{}\",0,0,0,0", cid, context.type,
                                              context.apn, address(modem, cid, context)));
        return reply;
    }
    if (command.form == Form::test)
        return reply_line("+CGDCONT: (1-15),\"IPV4V6\",,,(0-2),(0-4)");
    std::optional<int> cid = command.number(0);
    if (command.form != Form::set || !cid || *cid < 1 || *cid > highest_cid)
        return reply_error();
    if (command.args.size() == 1) {
        contexts.erase(*cid);
        return reply_ok();
    }
    if (!known_type(command.text(1)))
        return reply_error();
    contexts[*cid].type = command.text(1);
    contexts[*cid].apn = command.text(2);
    return reply_ok();
}

Reply activate_context(Modem &modem, const AtCommand &command)
{
    auto &contexts = modem.state.kept.contexts;
    if (command.form == Form::read) {
        Reply reply;
        for (const auto &[cid, context] : contexts)
            reply.lines.push_back(fmt::format("+CGACT: {},{}", cid, context.active ? 1 : 0));
        return reply;
    }
    if (command.form == Form::test)
        return reply_line("+CGACT: (0,1)");
    std::optional<int> state = command.number(0);
    if (command.form != Form::set || !state || *state > 1)
        return reply_error();
    if (*state == 1 && !modem.has_service())
        return cme(modem, 30);
    std::optional<int> cid = command.number(1);
    if (command.has(1) && (!cid || !contexts.contains(*cid)))
        return cme(modem, 50);
    for (const auto &[number, context] : contexts)
        if (!cid || number == *cid)
            modem.activate(number, *state == 1);
    return reply_ok();
}

/// The data call on the modem's network interface: action, instance[, IP type[, 2, cid...]].
Reply data_call(Modem &modem, const AtCommand &command)
{
    auto &contexts = modem.state.kept.contexts;
    if (command.form == Form::read) {
        bool up = contexts.contains(1) && contexts[1].active;
        return up ? reply_line("$QCRMCALL: 1,V4") : reply_ok();
    }
    std::optional<int> action = command.number(0);
    if (command.form != Form::set || !action || *action > 1 || !command.number(1))
        return reply_error();
    int cid = 1;
    for (size_t i = 2; i + 1 < command.args.size(); i++)
        if (command.number(i) == 2 && command.number(i + 1))
            cid = *command.number(i + 1);
    if (!contexts.contains(cid))
        return reply_error();
    if (*action == 1 && !modem.has_service()) {
        Reply reply;
        reply.final = "NO CARRIER";
        return reply;
    }
    modem.activate(cid, *action == 1);
    return *action == 1 ? reply_line("$QCRMCALL: 1,V4") : reply_ok();
}

Reply authentication(Modem &modem, const AtCommand &command)
{
    auto &contexts = modem.state.kept.contexts;
    if (command.form == Form::read) {
        Reply reply;
        for (const auto &[cid, context] : contexts)
            reply.lines.push_back(
                fmt::format("+CGAUTH: {},{},\"{}\",\"{}\"", cid, context.auth, context.user, context.password));
        return reply;
    }
    std::optional<int> cid = command.number(0);
    std::optional<int> type = command.number(1);
    if (command.form != Form::set)
        return cme(modem, 100);
    if (!cid || !contexts.contains(*cid) || !type || *type > 3)
        return cme(modem, 50);
    Context &context = contexts[*cid];
    context.auth = *type;
    context.user = *type == 0 ? "" : command.text(2);
    context.password = *type == 0 ? "" : command.text(3);
    return reply_ok();
}

Reply addresses(Modem &modem, const AtCommand &command)
{
    Reply reply;
    for (const auto &[cid, context] : modem.state.kept.contexts)
        if (modem.context_has_address(cid) && (!command.has(0) || command.number(0) == cid))
            reply.lines.push_back(fmt::format("+CGPADDR: {},\"{}\",\"{}\"", cid,
                                              context.type == "IPV6" ? "" : modem.state.behaviour.ipv4,
                                              context.type == "IP" ? "" : modem.state.behaviour.ipv6));
    return reply;
}

Reply dynamic_parameters(Modem &modem, const AtCommand &command)
{
    Reply reply;
    const Network &network = modem.state.network;
    for (const auto &[cid, context] : modem.state.kept.contexts)
        if (modem.context_has_address(cid) && (!command.has(0) || command.number(0) == cid))
            reply.lines.push_back(
                fmt::format("+CGCONTRDP: {},5,\"{}.mnc{:0>3}.mcc{}.gprs\",\"\",\"\",\"10.9.0.1\",\"10.9.0.2\"", cid,
                            context.apn, network.mnc, network.mcc));
    return reply;
}

Reply attach(Modem &modem, const AtCommand &command)
{
    if (command.form == Form::read)
        return reply_line(fmt::format("+CGATT: {}", modem.has_service() ? 1 : 0));
    std::optional<int> wanted = command.number(0);
    return command.form == Form::set && wanted && *wanted <= 1 ? reply_ok() : reply_error();
}

constexpr CommandRow table[] = {
    {"+CGDCONT", define_context}, {"+CGACT", activate_context}, {"$QCRMCALL", data_call},
    {"+CGAUTH", authentication},  {"+CGPADDR", addresses},      {"+CGCONTRDP", dynamic_parameters},
    {"+CGATT", attach},
};

} // namespace

std::span<const CommandRow> data_commands()
{
    return table;
}

} // namespace modemsim
