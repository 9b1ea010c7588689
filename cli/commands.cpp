// The table of commands, in the order of the help.

#include "commands.h"

#include "apn_commands.h"
#include "connection_commands.h"
#include "help.h"
#include "network_commands.h"
#include "pin_commands.h"
#include "radio_commands.h"
#include "sms_commands.h"
#include "status_commands.h"

static int command_help(const Arguments &arguments)
{
    return show_help(commands, arguments.count ? arguments.at(0) : nullptr);
}

const Command commands[] = {
    {"status", 0, command_status,
     ""
     "\0"
     "modem, SIM, network, signal and messages on one screen"
     "\0"
     "Everything that matters on one screen; also what celmux alone does. Takes at most\n"
     "one second of the modem's time (or that of --timeout); what it did not tell until\n"
     "then is shown as unknown, in JSON as null.\n"
     "\n"
     "  celmux\n"
     "  celmux status --json | jsonfilter -e @.lte.rsrp_dbm\n"},
    {"signal", 2, command_signal,
     "[--watch [SECONDS]]"
     "\0"
     "signal figures, once or again and again"
     "\0"
     "Shows level and quality of each technology that serves: RSRP in dBm, RSRQ and SINR\n"
     "in dB, of UMTS Ec/Io in dB, and the RSSI. With --watch it looks again every 2\n"
     "seconds, or as often as given, until Ctrl-C: on a terminal with a line that grows,\n"
     "from -120 dBm at its lowest to -70 dBm at its highest; in a pipe a line each time.\n"
     "\n"
     "  celmux signal --watch\n"
     "  celmux signal --watch 10 --json >> signal.log\n"},
    {"cells", 0, command_cells,
     ""
     "\0"
     "serving and neighbour cells"
     "\0"
     "Lists the cells that serve and those that the modem hears beside them. ARFCN is the\n"
     "EARFCN of an LTE cell, the NR-ARFCN of an NR cell and the UARFCN of a UMTS cell; PCI\n"
     "is the physical cell identity, of UMTS the primary scrambling code; TAC the tracking\n"
     "area code, of UMTS the location area code. A dash stands for what the modem does not\n"
     "tell.\n"},
    {"bands", -1, command_bands,
     "[show | set BANDS]"
     "\0"
     "bands that the modem may use"
     "\0"
     "Shows the bands that the modem may use, or chooses them: LTE bands as B3, NR bands as\n"
     "n78, UMTS bands as Roman numerals such as VIII, with commas or blanks between them;\n"
     "\"all\" for all that the modem has. The list replaces the one before, of every\n"
     "technology; the mode stays as it is.\n"
     "\n"
     "  celmux bands set B3,B7,B20,n78\n"
     "  celmux bands set all\n"},
    {"mode", 2, command_mode,
     "[show | set NAME]"
     "\0"
     "technologies that the modem may use"
     "\0"
     "Shows the technologies that the modem may use, or chooses them:\n"
     "\n"
     "  auto        UMTS, LTE and NR\n"
     "  auto-nsa    the same with NR only beside LTE (no 5G stand-alone)\n"
     "  nr, 5g      NR alone\n"
     "  lte, 4g     LTE alone\n"
     "  umts, 3g    UMTS alone\n"
     "  lte-nr      LTE and NR\n"
     "  lte-nr-nsa  the same with NR only beside LTE\n"
     "\n"
     "The modem does not tell whether NR may stand alone: what was set with \"-nsa\" is\n"
     "shown without it. A new mode allows all bands of its technologies again.\n"},
    {"scan", 0, command_scan,
     ""
     "\0"
     "look for networks, which takes minutes"
     "\0"
     "Lets the modem look for networks and waits for the end, at most 180 seconds (or those\n"
     "of --timeout); then lists the technology of each network that was found. Meanwhile\n"
     "the modem does nothing else, and other commands say that it is busy. A scan that runs\n"
     "already is waited for.\n"},
    {"operator", 1, command_operator,
     "[auto | CODE]"
     "\0"
     "operator, and how it is selected"
     "\0"
     "Shows the operator, or selects one: automatically, or by its code of 5 or 6 digits\n"
     "(MCC and MNC). Registering may take longer than the daemon waits for the modem, which\n"
     "then goes on all the same.\n"
     "\n"
     "  celmux operator 26201\n"
     "  celmux operator auto\n"},
    {"sms", -1, command_sms,
     "[list | show N | send NUMBER TEXT | delete N... | watch]"
     "\0"
     "text messages"
     "\0"
     "Messages are numbered from 1; a deletion (\"all\" for all of them) moves those behind\n"
     "it up. Show marks the message as read; watch prints messages as they arrive, until\n"
     "Ctrl-C. Parts of a long message that are missing are marked, for root only. For send\n"
     "\"-\" takes the text from standard input.\n"
     "\n"
     "  celmux sms send +491701234567 'On my way'\n"
     "  uptime | celmux sms send +491701234567 -\n"
     "  celmux sms delete 1 3\n"},
    {"apn", -1, command_apn,
     "[list | add APN [KEY=VALUE...] | edit N KEY=VALUE... | use N | remove N]"
     "\0"
     "APN profiles"
     "\0"
     "Profiles are numbered from 0; a removal moves those behind it up. \"use default\" is\n"
     "the operator's own. Keys are apn, name, ip (ipv4, ipv6 or ipv4v6, which is usual),\n"
     "user, password and auth (none, pap or chap); password=- asks for the password or takes\n"
     "it from standard input. What is changed counts from the next use on.\n"
     "\n"
     "  celmux apn add corp.example name=Work user=jane password=- auth=chap\n"
     "  celmux apn use 1 && celmux connect\n"},
    {"pin", -1, command_pin,
     "[status | unlock | change | lock | unlock-lock]"
     "\0"
     "PIN of the SIM card"
     "\0"
     "Shows whether the SIM card waits for a PIN, enters it (or the PUK and a new PIN),\n"
     "changes it, or makes the card ask for it at start (lock) or no longer (unlock-lock).\n"
     "Codes are asked for without being shown, or are lines of standard input; never\n"
     "arguments, which everybody on the router can see.\n"
     "\n"
     "  celmux pin unlock\n"
     "  celmux pin unlock < /etc/sim.pin\n"},
    {"connect", 0, command_connect,
     ""
     "\0"
     "radio on and connection manager started anew"
     "\0"
     "Does not wait for the address: celmux status shows it.\n"},
    {"disconnect", 0, command_disconnect,
     ""
     "\0"
     "connection manager stopped"
     "\0"
     ""},
    {"autoconnect", 1, command_autoconnect,
     "[on | off]"
     "\0"
     "whether the connection comes up by itself"
     "\0"
     ""},
    {"at", 1, command_at,
     "'COMMAND'"
     "\0"
     "send an AT command and print the answer"
     "\0"
     "Sends the command as it stands and prints the modem's answer. It waits 3 seconds, or\n"
     "those of --timeout.\n"
     "\n"
     "  celmux at 'AT+CGPADDR=1'\n"
     "  celmux --timeout 20 at AT+CGATT=1\n"},
    {"call", 2, command_call,
     "METHOD ['{JSON}']"
     "\0"
     "call any method of the daemon"
     "\0"
     "Calls a method of the bus object celmux and prints its answer as JSON; the\n"
     "arguments are a JSON object.\n"
     "\n"
     "  celmux call get_imei\n"
     "  celmux call get_message '{\"index\":1}'\n"},
    {"help", 1, command_help,
     "[COMMAND]"
     "\0"
     "show this list, or the help of one command"
     "\0"
     ""},
    {"", 0, nullptr, nullptr},
};
