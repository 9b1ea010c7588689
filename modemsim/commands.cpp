#include "commands.h"

namespace modemsim {

Reply run_command(Modem &modem, const AtCommand &command)
{
    for (auto table : {identity_commands(), settings_commands(), network_commands(), cell_commands(), data_commands(),
                       sim_commands(), sms_commands(), call_commands()})
        for (const CommandRow &row : table)
            if (row.name == command.name)
                return row.handler(modem, command);
    return reply_error();
}

} // namespace modemsim
