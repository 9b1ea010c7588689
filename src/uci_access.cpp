#include "uci_access.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

extern "C" {
#include <uci.h>
}

#include "shell.h"
#include "text_cut.h"
#include "uci_file.h"

constexpr size_t KEY_SIZE = 192;
constexpr int NOT_THERE = -1;

constexpr const char *CONFIG_FOLDER = "/etc/config";
constexpr const char *PENDING_FOLDER = "/tmp/.uci";

static const char *config_folder = CONFIG_FOLDER;
static const char *pending_folder = PENDING_FOLDER;

void uci_access_set_folders(const char *confdir, const char *savedir)
{
    config_folder = confdir ? confdir : CONFIG_FOLDER;
    pending_folder = savedir ? savedir : PENDING_FOLDER;
}

UciSession::UciSession() : UciSession(config_folder, pending_folder)
{
    shared = true;
}

UciSession::UciSession(const char *confdir, const char *savedir) : context(uci_alloc_context()), shared(false)
{
    if (!context || (uci_set_confdir(context, confdir) == UCI_OK && uci_set_savedir(context, savedir) == UCI_OK))
        return;
    uci_free_context(context);
    context = nullptr;
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

// Returns the error number of the lookup. `found` tells whether the key exists.
static int look_up(UciSession *session, const char *key, Lookup *lookup)
{
    if (!session->context || !copy_text(lookup->key, key))
        return NOT_THERE;
    lookup->found = {};
    if (session->shared && !uci_wait_until_free(config_folder, pending_folder, key))
        return UCI_ERR_IO;
    session->shared = false;
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

bool uci_value_is_text(const char *value)
{
    size_t length = 0;
    for (; value[length]; length++) {
        const auto c = static_cast<unsigned char>(value[length]);
        if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || length >= UCI_VALUE_MAX)
            return false;
    }
    return true;
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
    if (length < 0 || static_cast<size_t>(length) >= sizeof key || !uci_value_is_text(value))
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

// Has `edit` change the copy.
static int edit_copy(const UciCopy &copy, UciEdit edit, void *state, UciText *text)
{
    UciSession session(copy.config, copy.saved);
    Lookup lookup;
    int code = look_up_complete(&session, copy.package, &lookup);
    if (code == UCI_OK)
        code = edit(&session, state);
    if (code != UCI_OK)
        return code;
    FILE *stream = open_memstream(&text->data, &text->size);
    if (!stream)
        return UCI_ERR_MEM;
    code = uci_export(session.context, stream, lookup.found.p, false);
    const bool whole = fflush(stream) == 0 && !ferror(stream);
    fclose(stream);
    return code == UCI_OK && !whole ? UCI_ERR_MEM : code;
}

int uci_change_package(const char *package, UciEdit edit, void *state)
{
    constexpr int TRIES = 20;
    for (int i = 0; i < TRIES; i++) {
        UciFile file;
        UciCopy copy;
        UciText text;
        int code = uci_file_open(&file, config_folder, pending_folder, package);
        if (code == UCI_OK)
            code = uci_file_copy(file, pending_folder, package, &copy);
        if (code == UCI_OK)
            code = edit_copy(copy, edit, state, &text);
        if (code != UCI_OK)
            return code;
        const bool unchanged = text.size == file.text.size && memcmp(text.data, file.text.data, text.size) == 0;
        if (unchanged && file.pending_text.size == 0)
            return UCI_OK;
        bool current;
        code = uci_file_replace(&file, text.data, text.size, &current);
        if (current)
            return code;
    }
    return UCI_ERR_IO;
}

bool uci_name_taken(const char *package, const char *section)
{
    constexpr int LOOKS = 10;
    constexpr time_t JUST_NOW_S = 2;
    char line[KEY_SIZE];
    int length = snprintf(line, sizeof line, "+%s.%s=", package, section);
    if (length < 0 || static_cast<size_t>(length) >= sizeof line)
        return false;
    for (int i = 0; i < LOOKS; i++) {
        UciText pending;
        time_t changed = 0;
        if (!uci_pending_read(pending_folder, package, &pending, &changed))
            return false;
        if (pending.size > 0 && memmem(pending.data, pending.size, line, static_cast<size_t>(length)))
            return true;
        if (labs(time(nullptr) - changed) > JUST_NOW_S)
            return false;
        usleep(2000);
    }
    return false;
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

// Saves what was changed in the session beside the file, where the next commit takes it up; the file, which lies in
// flash memory, is not written.
static int save_uncommitted(UciSession *session, const char *package)
{
    Lookup lookup;
    int code = look_up_complete(session, package, &lookup);
    return code == UCI_OK ? uci_save(session->context, lookup.found.p) : code;
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
    return code == UCI_OK ? save_uncommitted(&session, "modem") : code;
}
