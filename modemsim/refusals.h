// What commands answer that cannot be carried out.
#pragma once

#include "at_command.h"
#include "modem.h"
#include "reply.h"

namespace modemsim {

/// `+CME ERROR` in the form that the modem is set to.
Reply cme(const Modem &modem, int code);
Reply cms(const Modem &modem, int code);

/// The +CME ERROR of a command that needs an unlocked card; 0 when the card serves.
int card_refusal(const Modem &modem);
/// What a short message command answers while the card does not serve; final "OK" when it does.
Reply sms_card_error(const Modem &modem, const AtCommand &command);

} // namespace modemsim
