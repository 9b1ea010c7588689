#pragma once

#include "at_command.h"
#include "modem.h"
#include "reply.h"

#include <span>
#include <string_view>

namespace modemsim {

using CommandHandler = Reply (*)(Modem &modem, const AtCommand &command);

struct CommandRow {
    std::string_view name;
    CommandHandler handler;
};

/// One table per family; the names are those of AtCommand::name.
std::span<const CommandRow> identity_commands();
std::span<const CommandRow> settings_commands();
std::span<const CommandRow> network_commands();
std::span<const CommandRow> cell_commands();
std::span<const CommandRow> data_commands();
std::span<const CommandRow> sim_commands();
std::span<const CommandRow> sms_commands();
std::span<const CommandRow> call_commands();

/// Carries one command out. Commands that the modem does not know answer ERROR.
Reply run_command(Modem &modem, const AtCommand &command);

/// The end of AT+CMGS: `data` is the message text without its Ctrl-Z.
Reply submit_message(Modem &modem, const AtCommand &command, std::string_view data);

} // namespace modemsim
