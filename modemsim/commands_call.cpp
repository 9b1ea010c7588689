#include "commands.h"

#include <fmt/format.h>

namespace modemsim {

namespace {

Reply hang_up(Modem &modem, const AtCommand &)
{
    modem.hang_up(false);
    return reply_ok();
}

Reply answer(Modem &modem, const AtCommand &)
{
    if (modem.calls.empty()) {
        Reply reply;
        reply.final = "NO CARRIER";
        return reply;
    }
    modem.calls.back().stage = Call::Stage::active;
    return reply_ok();
}

Reply dial(Modem &modem, const AtCommand &command)
{
    std::string number = command.text(0);
    if (number.ends_with(';'))
        number.pop_back();
    if (!modem.has_service() || number.empty()) {
        Reply reply;
        reply.final = "NO CARRIER";
        return reply;
    }
    modem.calls.push_back({Call::Stage::dialing, number});
    return reply_ok();
}

Reply list_calls(Modem &modem, const AtCommand &)
{
    Reply reply;
    int id = 1;
    for (const Call &call : modem.calls)
        reply.lines.push_back(fmt::format("+CLCC: {},{},{},0,0,\"{}\",{},\"\"", id++,
                                          call.stage == Call::Stage::dialing ? 0 : 1, static_cast<int>(call.stage),
                                          call.number, call.number.starts_with('+') ? 145 : 161));
    return reply;
}

constexpr CommandRow table[] = {
    {"H", hang_up}, {"+CHUP", hang_up}, {"A", answer}, {"D", dial}, {"+CLCC", list_calls},
};

} // namespace

std::span<const CommandRow> call_commands()
{
    return table;
}

} // namespace modemsim
