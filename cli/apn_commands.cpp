#include "apn_commands.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

#include "bus.h"
#include "json.h"
#include "output.h"
#include "result_text.h"
#include "secret.h"
#include "table.h"
#include "verbs.h"

constexpr int32_t LAST_ID = 100000; // beyond what anybody stores

struct Name {
    char name[7];
    int32_t number;
};

static const Name families[] = {{"ipv4", 0}, {"ipv6", 2}, {"ipv4v6", 3}};
static const Name authentications[] = {{"none", 0}, {"pap", 1}, {"chap", 2}};

static const char *find_name(std::span<const Name> names, int32_t number)
{
    for (const Name &row : names)
        if (row.number == number)
            return row.name;
    return nullptr;
}

// What a profile may have, by its name on the command line and on the bus; names: null for a text.
struct Setting {
    char key[9];
    char member[9];
    std::span<const Name> names;
};

enum { SETTING_APN, SETTING_NAME, SETTING_IP, SETTING_USER, SETTING_PASSWORD, SETTING_AUTH, SETTINGS };

static const Setting settings[SETTINGS] = {
    {"apn", "apn", {}},       {"name", "name", {}},         {"ip", "ip", families},
    {"user", "username", {}}, {"password", "password", {}}, {"auth", "auth", authentications},
};

static int no_such_profile(const char *text)
{
    return usage_error("apn", "%s is no number of a profile", text);
}

static int take_id(const char *text, int32_t *id)
{
    return parse_number(text, 0, LAST_ID, id) ? int{EXIT_DONE} : no_such_profile(text);
}

// The daemon would apply or change something else than a profile that is not there.
static int fetch_profile(int32_t id, Reply &reply)
{
    CallArguments arguments;
    arguments.number("id", id);
    if (bus_call("get_profile", &arguments, reply))
        return EXIT_DONE;
    if (reply.bus_status == 0 && reply.answered)
        return fail(EXIT_REFUSED, "apn: there is no profile %d", static_cast<int>(id));
    return explain("apn", reply);
}

// ---- list

static const Column list_columns[] = {
    {"id", "No.", true},     {"name", "Name", false},     {"apn", "APN", false},
    {"ip", "IP", false},     {"username", "User", false}, {"has_password", "Password", false},
    {"auth", "Auth", false},
};

static void cell_member(const char *text)
{
    cell_text(text ? text : "", text && *text ? text : "-");
}

static void list_profile(int32_t id, blob_attr *profile)
{
    enum { NAME, APN, FAMILY, USERNAME, PASSWORD, AUTH, MEMBERS };
    static const blobmsg_policy policy[MEMBERS] = {
        {"name", BLOBMSG_TYPE_STRING},     {"apn", BLOBMSG_TYPE_STRING},      {"ip_family", BLOBMSG_TYPE_INT32},
        {"username", BLOBMSG_TYPE_STRING}, {"password", BLOBMSG_TYPE_STRING}, {"auth", BLOBMSG_TYPE_INT32},
    };
    blob_attr *found[MEMBERS];
    blobmsg_parse(policy, MEMBERS, found, blobmsg_data(profile), static_cast<unsigned int>(blobmsg_data_len(profile)));
    auto text = [&](int member) { return found[member] ? blobmsg_get_string(found[member]) : nullptr; };
    auto number = [&](int member) {
        return found[member] ? static_cast<int32_t>(blobmsg_get_u32(found[member])) : int32_t{0};
    };
    const char *family = find_name(families, number(FAMILY));
    const char *password = text(PASSWORD);
    cell_number(id);
    cell_member(text(NAME));
    cell_member(text(APN));
    cell_text(family ? family : "ipv4v6"); // as the daemon takes other numbers
    cell_member(text(USERNAME));
    cell_bool(password && *password, "set", "-");
    cell_text(find_name(authentications, number(AUTH)));
}

static int list_profiles(const Arguments &)
{
    Reply reply;
    if (!bus_call("get_profile_list", nullptr, reply))
        return explain("apn", reply);
    blob_attr *list = reply.member("profiles");
    blob_attr *profile;
    size_t left;
    int32_t id = 0;
    json_open(nullptr, '{');
    table_begin("profiles", list_columns);
    blobmsg_for_each_attr(profile, list, left)
    {
        if (blobmsg_check_attr(profile, false) && blobmsg_type(profile) == BLOBMSG_TYPE_TABLE)
            list_profile(id++, profile);
    }
    if (!table_end("No profiles."))
        return fail(EXIT_REFUSED, "apn: out of memory");
    json_close();
    return EXIT_DONE;
}

// ---- add, edit

static int add_name(const Setting &setting, const char *value, CallArguments &message)
{
    for (const Name &row : setting.names) {
        if (strcasecmp(row.name, value) != 0)
            continue;
        message.number(setting.member, row.number);
        return EXIT_DONE;
    }
    return usage_error("apn", "%s is not one of %s", value,
                       setting.names.data() == families ? "ipv4, ipv6, ipv4v6" : "none, pap, chap");
}

// Takes KEY=VALUE of the arguments from `first` on; given[] tells which of the settings there were.
static int take_settings(const Arguments &arguments, int first, CallArguments &message, bool (&given)[SETTINGS])
{
    for (int i = first; i < arguments.count; i++) {
        const char *word = arguments.at(i);
        size_t length = strcspn(word, "=");
        int found = 0;
        while (found < SETTINGS && (strlen(settings[found].key) != length ||
                                    strncmp(settings[found].key, word, length) != 0 || word[length] != '='))
            found++;
        if (found == SETTINGS || given[found])
            return usage_error("apn", "%s is not one of apn=, name=, ip=, user=, password=, auth=, each once", word);
        given[found] = true;
        const char *value = word + length + 1;
        const Setting &setting = settings[found];
        Secret secret;
        int code = EXIT_DONE;
        if (!setting.names.empty()) {
            code = add_name(setting, value, message);
        } else if (found == SETTING_PASSWORD && strcmp(value, "-") == 0) {
            code = read_secret("apn", "Password", secret);
            message.text(setting.member, secret.text);
        } else {
            message.text(setting.member, value);
        }
        if (code != EXIT_DONE)
            return code;
    }
    return EXIT_DONE;
}

static int add_profile(const Arguments &arguments)
{
    CallArguments message;
    bool given[SETTINGS] = {};
    given[SETTING_APN] = true;
    message.text("apn", arguments.at(0));
    int code = take_settings(arguments, 1, message, given);
    if (code != EXIT_DONE)
        return code;
    if (given[SETTING_USER] != given[SETTING_PASSWORD] || (given[SETTING_USER] && !given[SETTING_AUTH]))
        return usage_error("apn", "user=, password= and auth= go together");
    if (!given[SETTING_IP])
        message.number("ip", families[2].number);
    return bus_do("add_profile", &message, "apn");
}

static int edit_profile(const Arguments &arguments)
{
    CallArguments message;
    Reply profile;
    int32_t id = 0;
    bool given[SETTINGS] = {};
    int code = take_id(arguments.at(0), &id);
    if (code == EXIT_DONE)
        code = take_settings(arguments, 1, message, given);
    if (code == EXIT_DONE)
        code = fetch_profile(id, profile);
    if (code != EXIT_DONE)
        return code;
    message.number("id", id);
    return bus_do("modify_profile", &message, "apn");
}

// ---- use, remove

// The profile of that id, and the id as the argument of a call about it.
static int name_profile(const char *text, CallArguments &message, Reply &profile)
{
    int32_t id = 0;
    int code = take_id(text, &id);
    if (code == EXIT_DONE)
        code = fetch_profile(id, profile);
    if (code == EXIT_DONE)
        message.number("id", id);
    return code;
}

// The daemon tells nothing of the modem's answer, so the modem is asked what it has now.
static int check_applied(const char *apn)
{
    constexpr size_t SHOWN = 63; // get_current_apn tells no longer ones
    Reply now;
    if (!bus_call("get_current_apn", nullptr, now))
        return explain("apn", now);
    const char *current = now.text("apn");
    const char *shown = current && *current ? current : "not set";
    if (apn && *apn && strlen(apn) <= SHOWN && strcasecmp(shown, apn) != 0)
        return fail(EXIT_REFUSED, "apn: the modem did not take it, its APN is %s", shown);
    print_line("The modem's APN is %s; 'celmux connect' connects with it.", shown);
    return EXIT_DONE;
}

static int use_profile(const Arguments &arguments)
{
    const char *wanted = arguments.at(0);
    if (strcmp(wanted, "default") == 0) {
        int code = bus_do("set_default_apn", nullptr, "apn");
        return code == EXIT_DONE ? check_applied(nullptr) : code;
    }
    Reply profile;
    CallArguments message;
    int code = name_profile(wanted, message, profile);
    if (code != EXIT_DONE)
        return code;
    code = bus_do("select_profile", &message, "apn");
    return code == EXIT_DONE ? check_applied(profile.text("apn")) : code;
}

static int remove_profile(const Arguments &arguments)
{
    Reply profile;
    CallArguments message;
    int code = name_profile(arguments.at(0), message, profile); // -1 would remove all
    return code == EXIT_DONE ? bus_do("delete_profile", &message, "apn") : code;
}

int command_apn(const Arguments &arguments)
{
    static const Verb verbs[] = {
        {"list", list_profiles, 0, 0}, {"add", add_profile, 1, -1},      {"edit", edit_profile, 2, -1},
        {"use", use_profile, 1, 1},    {"remove", remove_profile, 1, 1},
    };
    return run_verb("apn", verbs, arguments);
}
