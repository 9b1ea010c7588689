#include "uci_access.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <uci.h>
}

#include "at_text.h"
#include "shell.h"

constexpr size_t KEY_SIZE = 192;
constexpr int NOT_THERE = -1;

static const char *config_folder = nullptr;
static const char *pending_folder = nullptr;

void uci_access_set_folders(const char *confdir, const char *savedir)
{
    config_folder = confdir;
    pending_folder = savedir;
}

UciSession::UciSession() : context(uci_alloc_context())
{
    if (context && config_folder)
        (void)uci_set_confdir(context, config_folder);
    if (context && pending_folder)
        (void)uci_set_savedir(context, pending_folder);
}

UciSession::~UciSession()
{
    if (context)
        uci_free_context(context);
}

// A key and what it leads to; `found` points into `key`.
struct Lookup {
    char key[KEY_SIZE];
    uci_ptr found;
};

// Error number of the lookup; what does not exist is told by `found`.
static int look_up(UciSession *session, const char *key, Lookup *lookup)
{
    if (!session->context || !copy_text(lookup->key, key))
        return NOT_THERE;
    lookup->found = {};
    return uci_lookup_ptr(session->context, &lookup->found, lookup->key, true);
}

static int look_up_complete(UciSession *session, const char *key, Lookup *lookup)
{
    int code = look_up(session, key, lookup);
    if (code != UCI_OK)
        return code;
    return lookup->found.flags & uci_ptr::UCI_LOOKUP_COMPLETE ? UCI_OK : NOT_THERE;
}

int uci_session_find(UciSession *session, const char *key)
{
    Lookup lookup;
    return look_up_complete(session, key, &lookup);
}

int uci_session_section_name(UciSession *session, const char *key, std::span<char> name)
{
    Lookup lookup;
    int code = look_up_complete(session, key, &lookup);
    if (code != UCI_OK)
        return code;
    return lookup.found.s && copy_text(name, lookup.found.s->e.name) ? UCI_OK : NOT_THERE;
}

int uci_session_value(UciSession *session, const char *key, char **value)
{
    Lookup lookup;
    int code = look_up_complete(session, key, &lookup);
    if (code != UCI_OK)
        return code;
    const uci_option *option = lookup.found.o;
    if (!option || option->type != UCI_TYPE_STRING || !option->v.string)
        return NOT_THERE;
    char *copy = strdup(option->v.string);
    if (!copy)
        return UCI_ERR_MEM;
    *value = copy;
    return UCI_OK;
}

static bool walk_section(uci_section *section, UciVisit visit, void *state)
{
    if (!visit(state, section->e.name, nullptr, nullptr))
        return false;
    uci_element *element;
    uci_foreach_element(&section->options, element)
    {
        const uci_option *option = uci_to_option(element);
        if (option->type == UCI_TYPE_STRING && option->v.string &&
            !visit(state, section->e.name, option->e.name, option->v.string))
            return false;
    }
    return true;
}

int uci_session_walk(UciSession *session, const char *package, UciVisit visit, void *state)
{
    Lookup lookup;
    int code = look_up_complete(session, package, &lookup);
    if (code != UCI_OK)
        return code;
    uci_element *element;
    uci_foreach_element(&lookup.found.p->sections, element)
    {
        if (!walk_section(uci_to_section(element), visit, state))
            return NOT_THERE;
    }
    return UCI_OK;
}

int uci_session_add(UciSession *session, const char *package, const char *type, std::span<char> name)
{
    Lookup lookup;
    int code = look_up_complete(session, package, &lookup);
    if (code != UCI_OK)
        return code;
    uci_section *section = nullptr;
    code = uci_add_section(session->context, lookup.found.p, type, &section);
    if (code != UCI_OK)
        return code;
    return section && copy_text(name, section->e.name) ? UCI_OK : NOT_THERE;
}

int uci_session_set(UciSession *session, const char *package, const char *section, const char *option,
                    const char *value)
{
    char key[KEY_SIZE];
    int length = snprintf(key, sizeof key, "%s.%s.%s", package, section, option);
    if (length < 0 || static_cast<size_t>(length) >= sizeof key || strlen(value) > UCI_VALUE_MAX)
        return NOT_THERE;
    Lookup lookup;
    int code = look_up(session, key, &lookup);
    if (code != UCI_OK)
        return code;
    if (!lookup.found.s)
        return NOT_THERE;
    lookup.found.value = value; // as a value of its own: in the key's text an '=' or a '.' of it could be taken apart
    return uci_set(session->context, &lookup.found);
}

int uci_session_delete(UciSession *session, const char *key)
{
    Lookup lookup;
    int code = look_up_complete(session, key, &lookup);
    return code == UCI_OK ? uci_delete(session->context, &lookup.found) : code;
}

int uci_session_save(UciSession *session, const char *package)
{
    Lookup lookup;
    int code = look_up_complete(session, package, &lookup);
    return code == UCI_OK ? uci_save(session->context, lookup.found.p) : code;
}

int uci_session_commit(UciSession *session, const char *package)
{
    Lookup lookup;
    int code = look_up_complete(session, package, &lookup);
    return code == UCI_OK ? uci_commit(session->context, &lookup.found.p, false) : code;
}

char *uci_read_string(const char *key)
{
    UciSession session;
    char *value = nullptr;
    return uci_session_value(&session, key, &value) == UCI_OK ? value : nullptr;
}

int uci_get_autoconnect(uint8_t *enabled)
{
    UciSession session;
    char *value = nullptr;
    int code = uci_session_value(&session, "modem.settings.autoconnect", &value);
    if (code != UCI_OK)
        return code;
    *enabled = leading_int(value) != 0;
    free(value);
    return UCI_OK;
}

int uci_set_autoconnect(uint8_t enable)
{
    int set = run_shell(enable ? "uci set modem.settings.autoconnect=1" : "uci set modem.settings.autoconnect=0");
    return set | run_shell("uci commit modem");
}

int uci_set_message_unread()
{
    UciSession session;
    char *value = nullptr;
    bool set = uci_session_value(&session, "modem.state.message_unread", &value) == UCI_OK && strcmp(value, "1") == 0;
    free(value);
    if (set)
        return UCI_OK;
    int code = uci_session_set(&session, "modem", "state", "message_unread", "1");
    return code == UCI_OK ? uci_session_save(&session, "modem") : code;
}
