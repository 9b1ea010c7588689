#include "indications.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "at_mask.h"
#include "link.h"
#include "log.h"
#include "message_fetch.h"
#include "message_index.h"
#include "request.h"
#include "shell.h"
#include "text_cut.h"

constexpr int32_t LTE = 7; // access technology of 3GPP TS 27.007 7.3; higher ones are NR
constexpr unsigned MOST_OPERATORS = 64;
constexpr size_t SCRIPT_SIZE = 4096;

char g_apn[APN_SIZE];
std::atomic<uint8_t> ip_family_updated{0};
std::atomic<int32_t> g_ip_family{-1};

static void sim_ready(std::string_view)
{
    static const char *const commands[] = {"AT+CPMS=\"SM\",\"SM\",\"SM\"\r", "AT+CMGF=0\r", "AT+CNMI=2,1\r",
                                           "AT+CPMS?\r"};
    for (const char *command : commands)
        (void)at_enqueue(command, 0); // refused and not repeated while a scan runs; logged there
    list_messages_at_once();
}

static void new_message(std::string_view line)
{
    Cut index = after_marker(line, ",");
    if (!index.found)
        return;
    int32_t value = leading_int(index.text);
    if (sms_index_enqueue(value) == 0)
        log_info("Enqueue message index: %d", value);
}

static int32_t family_of(std::string_view type)
{
    if (type.starts_with("IPV4V6"))
        return 3;
    if (type.starts_with("IPV6"))
        return 2;
    return type.starts_with("IP") ? 0 : -1;
}

// The quoted text at the start of the third field; empty when there is none.
static std::string_view apn_of(std::string_view line)
{
    Cut rest = after_marker(after_marker(line, ",").text, ",");
    size_t start = rest.found ? rest.text.find_first_not_of(' ') : std::string_view::npos;
    if (start == std::string_view::npos || rest.text[start] != '"')
        return "";
    Cut apn = until_any(rest.text.substr(start + 1), "\"");
    return apn.found ? apn.text : "";
}

static void pdp_context(std::string_view line)
{
    Cut type = after_marker(line, "\"");
    if (type.found) {
        int32_t family = family_of(type.text);
        g_ip_family.store(family);
        log_info("Current IP Family: %d", family);
        copy_cut(g_apn, apn_of(line));
        log_info("Current APN: %s", g_apn);
    }
    ip_family_updated.store(1); // last: who sees it reads the new family
}

static void storage_state(std::string_view line)
{
    constexpr std::string_view SIM_STORAGE = "\"SM\"";
    size_t start = line.find(SIM_STORAGE);
    if (start == std::string_view::npos || line.size() < start + SIM_STORAGE.size() + 1)
        return;
    std::string_view used = line.substr(start + SIM_STORAGE.size() + 1);
    Cut capacity = after_marker(used, ",");
    if (!capacity.found || leading_int(used) != leading_int(capacity.text))
        return;
    log_error("SIM sms storage full.");
    list_messages_at_once();
}

// Takes the inside of the next parenthesised group off the front of *rest. Names in quotes may hold parentheses.
static bool next_group(std::string_view *rest, std::string_view *group)
{
    size_t start = rest->find('(');
    if (start == std::string_view::npos)
        return false;
    bool quoted = false;
    for (size_t at = start + 1; at < rest->size(); at++) {
        char c = (*rest)[at];
        if (c == '"')
            quoted = !quoted;
        if (c != ')' || quoted)
            continue;
        *group = rest->substr(start + 1, at - start - 1);
        rest->remove_prefix(at + 1);
        return true;
    }
    return false;
}

static const char *technology_name(int32_t technology)
{
    if (technology == LTE)
        return "E-UTRAN";
    return technology > LTE ? "NR" : "UTRAN";
}

static void scan_result(std::string_view line)
{
    char script[SCRIPT_SIZE];
    std::string_view operators = line.substr(0, line.find(",,"));
    std::string_view group;
    end_scan();
    int used = snprintf(script, sizeof script, "uci delete modem.scan.network");
    for (unsigned count = 0; count < MOST_OPERATORS && next_group(&operators, &group);) {
        size_t comma = group.rfind(',');
        if (comma == std::string_view::npos)
            continue;
        const char *name = technology_name(leading_int(group.substr(comma + 1)));
        used += snprintf(script + used, sizeof script - static_cast<size_t>(used),
                         "; uci add_list modem.scan.network='%s'", name);
        count++;
    }
    snprintf(script + used, sizeof script - static_cast<size_t>(used),
             "; ubus send modem '{\"event\":\"scan_complete\"}'");
    (void)run_shell(script); // one shell for all of it: this thread has bursts to read
}

// Rows in the order in which they are tried.
struct Indication {
    std::string_view prefix;
    void (*act)(std::string_view line);
};

static constexpr Indication indications[] = {
    {"+CMTI:", new_message},   {"+SIM READY", sim_ready}, {"+CGDCONT: 1,", pdp_context},
    {"+CPMS:", storage_state}, {"+COPS: (", scan_result},
};

static void information_line(std::string_view line)
{
    Masked shown(line);
    log_info("token: %.*s", shown.length, shown.text);
    for (const Indication &indication : indications) {
        if (line.starts_with(indication.prefix)) {
            indication.act(line);
            break;
        }
    }
}

void handle_indications(std::string_view text)
{
    std::string_view rest = text, line;
    bool delivered = false; // the next line is a message behind "+CMT:"
    while (next_line(&rest, &line)) {
        if (line.starts_with('+'))
            information_line(line);
        else if (delivered)
            (void)at_enqueue("AT+CNMA\r", 0); // not repeated; a refusal is logged there
        delivered = line.starts_with("+CMT:");
    }
    messages_in_answer(text);
}
