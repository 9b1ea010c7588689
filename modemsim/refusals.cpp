#include "refusals.h"

namespace modemsim {

Reply cme(const Modem &modem, int code)
{
    return reply_cme(modem.state.settings.cmee, code);
}

Reply cms(const Modem &modem, int code)
{
    return reply_cms(modem.state.settings.cmee, code);
}

int card_refusal(const Modem &modem)
{
    switch (modem.state.sim.state) {
    case SimState::absent:
        return 10;
    case SimState::pin:
        return 11;
    case SimState::puk:
        return 12;
    case SimState::blocked:
        return 13;
    case SimState::ready:
        return modem.sim_awake ? 0 : 14;
    }
    return 0;
}

Reply sms_card_error(const Modem &modem, const AtCommand &command)
{
    switch (modem.state.sim.state) {
    case SimState::absent:
        if (modem.state.behaviour.no_sim == NoSimStyle::fm160 && command.name == "+CMGF")
            return cme(modem, 10);
        if (modem.state.behaviour.no_sim == NoSimStyle::fm160 && command.name == "+CPMS")
            return reply_error();
        return cms(modem, 310);
    case SimState::pin:
        return cms(modem, 311);
    case SimState::puk:
        return cms(modem, 316);
    case SimState::blocked:
        return cms(modem, 310);
    case SimState::ready:
        break;
    }
    return modem.sim_awake ? reply_ok() : cms(modem, 314);
}

} // namespace modemsim
