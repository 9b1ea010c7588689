#include "connection_commands.h"

#include <cstring>
#include <strings.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "bus.h"
#include "json.h"
#include "output.h"
#include "result_text.h"

// ---- data connection

int command_connect(const Arguments &)
{
    int code = bus_do("wanmd_enable", nullptr, "connect");
    if (code == EXIT_DONE)
        print_line("Connecting; 'celmux status' shows the address once there is one.");
    return code;
}

int command_disconnect(const Arguments &)
{
    int code = bus_do("wanmd_disable", nullptr, "disconnect");
    if (code == EXIT_DONE)
        print_line("The connection manager is stopped.");
    return code;
}

static int show_autoconnect()
{
    Reply reply;
    if (!bus_call("get_autoconnect", nullptr, reply))
        return explain("autoconnect", reply);
    bool on = reply.number("autoconnect").value_or(0) != 0;
    json_open(nullptr, '{');
    json_bool("autoconnect", on);
    json_close();
    print_row("Autoconnect", "%s", on ? "on" : "off");
    return EXIT_DONE;
}

int command_autoconnect(const Arguments &arguments)
{
    const char *wanted = arguments.at(0);
    if (!wanted)
        return show_autoconnect();
    bool on = strcmp(wanted, "on") == 0;
    if (!on && strcmp(wanted, "off") != 0)
        return usage_error("autoconnect", "on or off");
    CallArguments message;
    message.number("state", on);
    return bus_do("set_autoconnect", &message, "autoconnect");
}

// ---- modem and bus as they are

// Whether a line begins with a final result code of 3GPP TS 27.007 9 or V.250 5.7.1 that says no.
static bool is_refusal(const char *line)
{
    static const char codes[][12] = {"ERROR", "+CME ERROR", "+CMS ERROR", "NO CARRIER", "NO DIALTONE", "BUSY"};
    for (const char *code : codes)
        if (strncmp(line, code, strlen(code)) == 0)
            return true;
    return false;
}

int command_at(const Arguments &arguments)
{
    const char *command = arguments.at(0);
    if (!command || strncasecmp(command, "AT", 2) != 0)
        return usage_error("at", "a command that begins with AT");
    for (const char *c = command; *c; c++)
        if (static_cast<unsigned char>(*c) < ' ' || *c == '\x7f') // would end the command, or begin another one
            return usage_error("at", "a command has no control characters");
    Reply reply;
    if (!bus_at_command(command, reply))
        return explain("at", reply);
    const char *answer = reply.text("resp");
    const char *last = "";
    json_open(nullptr, '{');
    json_text("command", command);
    json_open("lines", '[');
    for (const char *line = answer ? answer : ""; *(line += strspn(line, "\r\n"));) {
        size_t length = strcspn(line, "\r\n");
        json_text(nullptr, line, length);
        print_line("%.*s", static_cast<int>(length), line);
        last = line;
        line += length;
    }
    json_close();
    bool refused = is_refusal(last);
    json_bool("refused", refused);
    json_close();
    return refused ? fail(EXIT_REFUSED, "at: the modem refused it") : int{EXIT_DONE};
}

int command_call(const Arguments &arguments)
{
    const char *method = arguments.at(0);
    if (!method)
        return usage_error("call", "which method?");
    CallArguments message;
    const char *json = arguments.at(1);
    if (json && !blobmsg_add_json_from_string(&message.buf, json))
        return usage_error("call", "the arguments are not one JSON object");
    Reply reply;
    (void)bus_call(method, &message, reply); // an answer is shown whatever its result is
    if (reply.data) {
        json_always();
        json_open(nullptr, '{');
        json_members(reply.data);
        json_close();
    }
    return explain(method, reply);
}
