#include "commands.h"

#include <fmt/format.h>

#include "refusals.h"

namespace modemsim {

namespace {

constexpr int pin_attempts = 3;
constexpr int puk_attempts = 10;

bool well_formed_pin(const std::string &pin)
{
    return pin.size() >= 4 && pin.size() <= 8 && pin.find_first_not_of("0123456789") == pin.npos;
}

/// Compares a PIN that was entered and counts; the code of the refusal, 0 when it is right.
int check_pin(Sim &sim, const std::string &pin)
{
    if (pin == sim.pin) {
        sim.pin_left = pin_attempts;
        return 0;
    }
    if (--sim.pin_left <= 0) {
        sim.pin_left = 0;
        sim.state = SimState::puk;
        return 12;
    }
    return 16;
}

int check_puk(Sim &sim, const std::string &puk)
{
    if (puk == sim.puk) {
        sim.puk_left = puk_attempts;
        return 0;
    }
    if (--sim.puk_left <= 0) {
        sim.puk_left = 0;
        sim.state = SimState::blocked;
        return 13;
    }
    return 16;
}

Reply pin_state(const Modem &modem)
{
    if (modem.state.sim.state != SimState::absent && !modem.sim_awake)
        return cme(modem, 14);
    switch (modem.state.sim.state) {
    case SimState::ready:
        return reply_line("+CPIN: READY");
    case SimState::pin:
        return reply_line("+CPIN: SIM PIN");
    case SimState::puk:
        return reply_line("+CPIN: SIM PUK");
    case SimState::absent:
        return cme(modem, 10);
    case SimState::blocked:
        break;
    }
    return cme(modem, 13);
}

Reply enter_pin(Modem &modem, const AtCommand &command)
{
    Sim &sim = modem.state.sim;
    if (command.form == Form::read)
        return pin_state(modem);
    if (command.form == Form::test)
        return reply_ok();
    if (command.form != Form::set || !command.has(0))
        return cme(modem, 50);
    bool with_puk = command.args.size() > 1;
    if (sim.state == SimState::absent || sim.state == SimState::blocked)
        return cme(modem, card_refusal(modem));
    if (sim.state == SimState::ready)
        return cme(modem, 3);
    if (sim.state == SimState::pin) {
        int refusal = with_puk ? 3 : check_pin(sim, command.text(0));
        if (refusal != 0)
            return cme(modem, refusal);
    } else {
        if (!with_puk)
            return cme(modem, 12);
        if (!well_formed_pin(command.text(1)))
            return cme(modem, 50);
        int refusal = check_puk(sim, command.text(0));
        if (refusal != 0)
            return cme(modem, refusal);
        sim.pin = command.text(1);
        sim.pin_left = pin_attempts;
    }
    modem.unlock_sim();
    return reply_ok();
}

Reply lock(Modem &modem, const AtCommand &command)
{
    Sim &sim = modem.state.sim;
    if (command.form == Form::test)
        return reply_line("+CLCK: (\"SC\")");
    std::optional<int> mode = command.number(1);
    if (command.form != Form::set || command.text(0) != "SC" || !mode || *mode > 2)
        return cme(modem, 50);
    int refusal = card_refusal(modem);
    if (sim.state == SimState::pin && *mode == 2)
        refusal = 0;
    if (refusal != 0)
        return cme(modem, refusal);
    if (*mode == 2)
        return reply_line(fmt::format("+CLCK: {}", sim.lock ? 1 : 0));
    refusal = check_pin(sim, command.text(2));
    if (refusal != 0)
        return cme(modem, refusal);
    sim.lock = *mode == 1;
    return reply_ok();
}

Reply change_pin(Modem &modem, const AtCommand &command)
{
    Sim &sim = modem.state.sim;
    if (command.form == Form::test)
        return reply_line("+CPWD: (\"SC\",8)");
    if (command.form != Form::set || command.text(0) != "SC" || !well_formed_pin(command.text(2)))
        return cme(modem, 50);
    int refusal = card_refusal(modem);
    if (refusal == 0 && !sim.lock)
        refusal = 3;
    if (refusal == 0)
        refusal = check_pin(sim, command.text(1));
    if (refusal != 0)
        return cme(modem, refusal);
    sim.pin = command.text(2);
    return reply_ok();
}

Reply attempts(Modem &modem, const AtCommand &command)
{
    const Sim &sim = modem.state.sim;
    if (sim.state == SimState::absent)
        return cme(modem, 10);
    const std::tuple<std::string_view, int, int> rows[] = {{"SIM PIN", sim.pin_left, pin_attempts},
                                                           {"SIM PUK", sim.puk_left, puk_attempts},
                                                           {"SIM PIN2", sim.pin2_left, pin_attempts},
                                                           {"SIM PUK2", sim.puk2_left, puk_attempts}};
    Reply reply;
    for (const auto &[name, left, allowed] : rows)
        if (!command.has(0) || command.text(0) == name)
            reply.lines.push_back(fmt::format("+CPINR: {},{},{}", name, left, allowed));
    return reply.lines.empty() ? cme(modem, 50) : reply;
}

Reply all_attempts(Modem &modem, const AtCommand &)
{
    const Sim &sim = modem.state.sim;
    if (sim.state == SimState::absent)
        return cme(modem, 10);
    return reply_line(fmt::format("+TPIN: {},{},{},{}", sim.pin_left, sim.puk_left, sim.pin2_left, sim.puk2_left));
}

constexpr CommandRow table[] = {
    {"+CPIN", enter_pin}, {"+CLCK", lock}, {"+CPWD", change_pin}, {"+CPINR", attempts}, {"+TPIN", all_attempts},
};

} // namespace

std::span<const CommandRow> sim_commands()
{
    return table;
}

} // namespace modemsim
