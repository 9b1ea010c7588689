#include "indications.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "at_mask.h"
#include "at_text.h"
#include "log.h"
#include "message_decode.h"
#include "message_merge.h"
#include "message_store.h"
#include "link.h"
#include "request.h"
#include "resp_processor.h"
#include "shell.h"

constexpr int32_t LTE = 7; // access technology of 3GPP TS 27.007 7.3; higher ones are NR
constexpr int32_t SWEPT_INDEXES = 10;
constexpr unsigned MOST_OPERATORS = 64;
constexpr size_t SCRIPT_SIZE = 4096;

char g_apn[APN_SIZE];

// What the next line that does not begin with "+" is.
enum class Expectation { none, delivered, listed, read };

// One block under work.
struct Block {
    Expectation expectation;
    bool offered;      // a message was offered to the store
    bool refused;      // one of them could not be stored
    bool unread;       // one of them was stored
    bool answers_read; // a "+CMGR:" line was there
    bool listed;       // a message behind "+CMGL:" was decoded
    bool whole;        // it ends with "OK"
    bool torn;         // it begins in the middle of a PDU
};

static void sim_ready(std::string_view)
{
    static const char *const commands[] = {"AT+CPMS=\"SM\",\"SM\",\"SM\"\r", "AT+CMGF=0\r", "AT+CNMI=2,1\r",
                                           "AT+CPMS?\r"};
    for (const char *command : commands)
        (void)at_enqueue(command, 0); // refused and not repeated while a scan runs; logged there
    g_sms_sweep.store(1);
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

// The quoted text at the start of the field behind the second comma; empty without one.
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
    for (int32_t index = 1; index <= SWEPT_INDEXES; index++)
        (void)sms_index_enqueue(index); // a full queue is logged there and swept later
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
    void (*act)(std::string_view line); // or null
    Expectation expectation;
};

static constexpr Indication indications[] = {
    {"+CMT:", nullptr, Expectation::delivered},       {"+CMTI:", new_message, Expectation::none},
    {"+CMGL:", nullptr, Expectation::listed},         {"+CMGR:", nullptr, Expectation::read},
    {"+SIM READY", sim_ready, Expectation::none},     {"+CGDCONT: 1,", pdp_context, Expectation::none},
    {"+CPMS:", storage_state, Expectation::none},     {"+COPS: (", scan_result, Expectation::none},
};

static void information_line(Block *block, std::string_view line)
{
    Masked shown(line);
    log_info("token: %.*s", shown.length, shown.text);
    block->expectation = Expectation::none;
    for (const Indication &indication : indications) {
        if (!line.starts_with(indication.prefix))
            continue;
        block->expectation = indication.expectation;
        if (indication.act)
            indication.act(line);
        break;
    }
    block->answers_read = block->answers_read || block->expectation == Expectation::read;
}

static void store_message(Block *block, const DecodedMessage *message)
{
    char *text = message_json(message, true);
    if (text)
        log_info("%s", text);
    free(text);
    block->offered = true;
    switch (add_message(message)) {
    case AddResult::added:
        block->unread = true;
        break;
    case AddResult::duplicate:
        break;
    case AddResult::refused:
        block->refused = true;
        text = message_json(message, false);
        log_error("Append failed: %s", text ? text : "no memory");
        free(text);
        break;
    }
}

static void message_line(Block *block, std::string_view line)
{
    DecodedMessage *message = nullptr;
    int result = decode_message(line, &message);
    if (result == 0) {
        block->listed = block->listed || block->expectation == Expectation::listed;
        store_message(block, message);
        free(message);
    } else if (result == -2) {
        block->refused = true;
        log_error("no memory for a message");
    }
}

static bool is_pdu_text(std::string_view line)
{
    return line.size() > 8 && line.find_first_not_of("0123456789ABCDEFabcdef") == std::string_view::npos;
}

static void other_line(Block *block, std::string_view line)
{
    Expectation expectation = block->expectation;
    block->whole = line == "OK";
    block->torn = block->torn || (expectation == Expectation::none && is_pdu_text(line));
    if (expectation == Expectation::delivered)
        (void)at_enqueue("AT+CNMA\r", 0); // not repeated; a refusal is logged there
    if (expectation == Expectation::listed || expectation == Expectation::read)
        message_line(block, line);
    block->expectation = Expectation::none;
}

// The SIM's copies go only when the store's are on the disk.
static void finish_block(const Block *block)
{
    bool saved = !block->offered || save_messages(MESSAGE_FILE) == 0;
    if (block->answers_read || block->refused)
        set_message_refused(block->refused);
    if (block->unread)
        set_message_unread();
    if (!block->listed)
        return;
    if (!saved || block->refused) {
        log_error("messages not saved, they stay on the SIM");
    } else if (block->torn || !block->whole) {
        // A listing that came in pieces: what stood at the cut is not in the store, so all of it is listed again.
        log_error("listing of messages is not whole, they stay on the SIM");
        g_sms_sweep.store(1);
    } else {
        (void)at_enqueue("AT+CMGD=0,3\r", 0); // not repeated; a refusal is logged there
    }
}

void handle_indications(std::string_view text)
{
    Block block = {};
    std::string_view line;
    while (next_line(&text, &line)) {
        if (line.starts_with('+'))
            information_line(&block, line);
        else
            other_line(&block, line);
    }
    finish_block(&block);
}
