#include "status_commands.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "bus.h"
#include "json.h"
#include "output.h"
#include "radio_figures.h"
#include "result_text.h"
#include "signal_view.h"

constexpr int MODEM_TIME_MS = 1000;
constexpr int LEAST_TIME_MS = 20;     // no call is begun with less left
constexpr int MESSAGES_TIME_MS = 500; // of the daemon alone

// What is asked for, what matters most first: when the time is up the rest stays unknown.
enum Fact {
    FACT_SIM,
    FACT_OPERATOR,
    FACT_REGISTRATION,
    FACT_CELLS,
    FACT_APN,
    FACT_ADDRESS,
    FACT_MODEL,
    FACT_FIRMWARE,
    FACT_MANUFACTURER,
    FACT_COUNT
};

static const char fact_methods[FACT_COUNT][32] = {
    "get_sim_status",  "get_operator_info", "get_roaming_status", "get_current_cell_info_explained",
    "get_current_apn", "at_passthrough",    "get_model",          "get_sw_version",
    "get_manufacturer"};

struct Addresses {
    char ipv4[INET_ADDRSTRLEN];
    char ipv6[INET6_ADDRSTRLEN];
};

struct Facts {
    Reply replies[FACT_COUNT];
    Reply messages;
    int total_messages;
    int unread_messages;
    Addresses addresses;

    const char *text(Fact fact, const char *member) const
    {
        const char *value = replies[fact].done() ? replies[fact].text(member) : nullptr;
        return value && *value ? value : nullptr;
    }
    std::optional<int32_t> number(Fact fact, const char *member) const
    {
        return replies[fact].done() ? replies[fact].number(member) : std::nullopt;
    }
};

// ---- asking

static void ask_modem(Facts &facts)
{
    int limit = options.timeout_ms ? options.timeout_ms : MODEM_TIME_MS;
    int64_t end = now_ms() + limit;
    for (int fact = 0; fact < FACT_COUNT; fact++) {
        int left = static_cast<int>(end - now_ms());
        if (left < LEAST_TIME_MS)
            return;
        CallArguments arguments;
        if (fact == FACT_ADDRESS) {
            arguments.text("at", "AT+CGPADDR=1");
            arguments.number("timeout_ms", left);
        }
        (void)bus_call_within(fact_methods[fact], &arguments, facts.replies[fact], left); // unknown without an answer
    }
}

static void count_messages(Facts &facts)
{
    static const blobmsg_policy read_policy = {"read", BLOBMSG_TYPE_BOOL};
    if (!bus_call_within("get_all_messages", nullptr, facts.messages, MESSAGES_TIME_MS))
        return;
    blob_attr *list = facts.messages.member("messages");
    blob_attr *message;
    size_t left;
    blobmsg_for_each_attr(message, list, left)
    {
        blob_attr *read = nullptr;
        if (!blobmsg_check_attr(message, false) || blobmsg_type(message) != BLOBMSG_TYPE_TABLE)
            continue;
        blobmsg_parse(&read_policy, 1, &read, blobmsg_data(message),
                      static_cast<unsigned int>(blobmsg_data_len(message)));
        facts.total_messages++;
        facts.unread_messages += read && !blobmsg_get_bool(read);
    }
}

// An address as AT+CGPADDR writes it: dotted, an IPv6 address as 16 numbers (3GPP TS 27.007 10.1.24), or usual.
static void take_address(std::string_view text, Addresses *addresses)
{
    unsigned char bytes[16] = {};
    char copy[64];
    size_t count = 0;
    snprintf(copy, sizeof(copy), "%.*s", static_cast<int>(text.size()), text.data());
    if (strchr(copy, ':')) {
        if (inet_pton(AF_INET6, copy, bytes) == 1)
            inet_ntop(AF_INET6, bytes, addresses->ipv6, sizeof(addresses->ipv6));
        return;
    }
    char *state = nullptr;
    for (char *part = strtok_r(copy, ".", &state); part && count < sizeof(bytes);
         part = strtok_r(nullptr, ".", &state)) {
        int32_t value = 0;
        if (!parse_number(part, 0, 255, &value))
            return;
        bytes[count++] = static_cast<unsigned char>(value);
    }
    static const unsigned char zeros[16] = {};
    if (memcmp(bytes, zeros, sizeof(zeros)) == 0)
        return;
    if (count == 4)
        inet_ntop(AF_INET, bytes, addresses->ipv4, sizeof(addresses->ipv4));
    else if (count == 16)
        inet_ntop(AF_INET6, bytes, addresses->ipv6, sizeof(addresses->ipv6));
}

static void take_addresses(Facts &facts)
{
    const char *answer = facts.text(FACT_ADDRESS, "resp");
    const char *line = answer ? strstr(answer, "+CGPADDR:") : nullptr;
    if (!line)
        return;
    std::string_view rest(line, strcspn(line, "\r\n"));
    std::string_view field;
    (void)next_field(rest, field); // the context's number
    while (next_field(rest, field))
        take_address(field, &facts.addresses);
}

// ---- showing

static const char *registration(const Facts &facts)
{
    const char *text = facts.text(FACT_REGISTRATION, "roaming_status");
    std::optional<int64_t> state = text ? whole_number(text) : std::nullopt;
    return state ? registration_name(static_cast<int>(*state)) : nullptr;
}

static const char *technology(const Facts &facts, const Signal &signal)
{
    std::optional<int32_t> act = facts.number(FACT_OPERATOR, "act");
    const char *name = act ? act_name(*act) : nullptr;
    return name ? name : rat_name(signal.rat);
}

static const char *selection(const Facts &facts)
{
    std::optional<int32_t> mode = facts.number(FACT_OPERATOR, "mode");
    return !mode ? nullptr : *mode == 0 ? "automatic" : *mode == 1 ? "manual" : "off";
}

static std::optional<bool> connected(const Facts &facts)
{
    if (!facts.replies[FACT_ADDRESS].done())
        return std::nullopt;
    return facts.addresses.ipv4[0] || facts.addresses.ipv6[0];
}

static void show_json(const Facts &facts, const Signal &signal)
{
    bool counted = facts.messages.done();
    json_open(nullptr, '{');
    json_text("manufacturer", facts.text(FACT_MANUFACTURER, "manufacturer"));
    json_text("model", facts.text(FACT_MODEL, "model"));
    json_text("firmware", facts.text(FACT_FIRMWARE, "sw_version"));
    json_text("sim", facts.text(FACT_SIM, "status"));
    json_text("operator", facts.text(FACT_OPERATOR, "oper"));
    json_text("operator_selection", selection(facts));
    json_text("registration", registration(facts));
    json_text("technology", technology(facts, signal));
    json_signal(signal);
    json_text("apn", facts.text(FACT_APN, "apn"));
    json_text("ip_type", facts.text(FACT_APN, "ip"));
    json_bool("connected", connected(facts));
    json_text("ipv4", facts.addresses.ipv4[0] ? facts.addresses.ipv4 : nullptr);
    json_text("ipv6", facts.addresses.ipv6[0] ? facts.addresses.ipv6 : nullptr);
    json_number("messages", counted ? std::optional<int64_t>(facts.total_messages) : std::nullopt);
    json_number("unread_messages", counted ? std::optional<int64_t>(facts.unread_messages) : std::nullopt);
    json_close();
}

static const char *or_empty(const char *text)
{
    return text ? text : "";
}

static const char *sim_words(const char *status)
{
    if (status && strcmp(status, "READY") == 0)
        return "ready";
    if (status && strcmp(status, "SIM PIN") == 0)
        return "waits for its PIN (celmux pin unlock)";
    if (status && strcmp(status, "SIM PUK") == 0)
        return "locked, waits for its PUK (celmux pin unlock)";
    return or_empty(status);
}

static const char *family_words(const char *type)
{
    static const char words[][2][14] = {{"IPV4", "IPv4"}, {"IPV6", "IPv6"}, {"IPV4V6", "IPv4 and IPv6"}};
    for (auto &row : words)
        if (strcmp(row[0], type) == 0)
            return row[1];
    return type;
}

static void show_network_rows(const Facts &facts, const Signal &signal)
{
    const char *name = facts.text(FACT_OPERATOR, "oper");
    bool none = facts.replies[FACT_OPERATOR].done() && !name;
    row_begin("Operator");
    print_piece("%s", name ? name : none ? "none" : "unknown");
    if (signal.mcc && signal.mnc && *signal.mcc)
        print_piece(" (%s %s)", signal.mcc, signal.mnc);
    if (selection(facts))
        print_piece(", %s", selection(facts));
    row_end();
    print_row("Registration", "%s", or_empty(registration(facts)));
    print_row("Technology", "%s", or_empty(technology(facts, signal)));
    print_signal_rows(signal);
    if (signal.cell_id)
        print_row("Cell", "%s, TAC %s", signal.cell_id, or_empty(signal.area));
}

static void show_rows(const Facts &facts, const Signal &signal)
{
    const char *manufacturer = facts.text(FACT_MANUFACTURER, "manufacturer");
    print_row("Modem", "%s%s%s", or_empty(manufacturer), manufacturer ? " " : "",
              or_empty(facts.text(FACT_MODEL, "model")));
    print_row("Firmware", "%s", or_empty(facts.text(FACT_FIRMWARE, "sw_version")));
    print_row("SIM", "%s", sim_words(facts.text(FACT_SIM, "status")));
    show_network_rows(facts, signal);
    const char *apn = facts.text(FACT_APN, "apn");
    const char *type = facts.text(FACT_APN, "ip");
    if (apn && type)
        print_row("APN", "%s (%s)", apn, family_words(type));
    else
        print_row("APN", "%s", or_empty(apn));
    if (!connected(facts))
        print_row("Address", "%s", "");
    else if (!*connected(facts))
        print_row("Address", "none, not connected");
    for (const char *address : {facts.addresses.ipv4, facts.addresses.ipv6})
        if (*address)
            print_row("Address", "%s", address);
    if (facts.messages.done())
        print_row("Messages", "%d unread of %d", facts.unread_messages, facts.total_messages);
    else
        print_row("Messages", "%s", "");
}

int command_status(const Arguments &)
{
    Facts facts = {};
    count_messages(facts);
    if (describe_failure(facts.messages, nullptr, 0) == EXIT_NO_DAEMON)
        return explain("status", facts.messages);
    ask_modem(facts);
    take_addresses(facts);
    Signal signal = read_signal(facts.replies[FACT_CELLS]);
    show_json(facts, signal);
    show_rows(facts, signal);
    // One missing fact is shown as such; when the modem says nothing at all there is a reason to tell.
    for (const Reply &reply : facts.replies)
        if (reply.done())
            return EXIT_DONE;
    return explain("status", facts.replies[0]);
}
