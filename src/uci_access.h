// The router's configuration (UCI). The only unit that includes libuci's header; every other one reads and writes
// through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct uci_context;

constexpr size_t UCI_NAME_SIZE = 64;  // of a section's name, with its terminating zero
constexpr size_t UCI_VALUE_MAX = 512; // longest value that the daemon stores, in bytes

// One look at the configuration: opened at the start of its scope, closed at its end. Belongs to one thread. All
// functions that take one return 0, libuci's error number (1 to 7; 4 also when others keep the package locked), or -1:
// what `key` names does not exist, a value is refused, or there is no memory for a context. A key is "package.section"
// or "package.section.option", the section also as "@type[n]".
struct UciSession {
    uci_context *context;
    bool shared; // the first look is still to come, at files that others may have locked

    UciSession();
    UciSession(const char *confdir, const char *savedir);
    ~UciSession();
    UciSession(const UciSession &) = delete;
    UciSession &operator=(const UciSession &) = delete;
};

// Does what `key` names exist?
int uci_session_find(UciSession *session, const char *key);
// The proper name of a section.
int uci_session_section_name(UciSession *session, const char *key, std::span<char> name);
// A heap copy of an option's value, freed by the caller. Lists count as missing. *value is written only on 0.
int uci_session_value(UciSession *session, const char *key, char **value);

// Calls `visit` for every section of a package in file order: first with a null option, then with each of its options
// that is not a list. Ends early with -1 when `visit` returns false.
using UciVisit = bool (*)(void *state, const char *section, const char *option, const char *value);
int uci_session_walk(UciSession *session, const char *package, UciVisit visit, void *state);

// These three work in the session of a UciEdit only; elsewhere their changes are dropped.
// Appends a section without a name of its own and gives the name that it has for now.
int uci_session_add(UciSession *session, const char *package, const char *type, std::span<char> name);
// Sets an option of an existing section; an empty value means as much as none.
int uci_session_set(UciSession *session, const char *package, const char *section, const char *option,
                    const char *value);
// Deletes a section or an option.
int uci_session_delete(UciSession *session, const char *key);

// At most UCI_VALUE_MAX bytes and no control characters but tab, line feed and carriage return: libuci takes others and
// cannot read them back.
bool uci_value_is_text(const char *value);

// Changes a package as one step, with all that others have saved and not committed, as a commit does it: `edit` gets it
// and changes it, and when it returns 0 the file is replaced by what it made. A failure changes nothing. Returns what
// `edit` returned if not 0, else as the functions of a session; 4 also for a full disk. Waits for others as long as
// uci_file_open does. Any thread. `edit` is called again when another commit came in between.
using UciEdit = int (*)(UciSession *session, void *state);
int uci_change_package(const char *package, UciEdit edit, void *state);
// Has somebody saved a new section of that name, and not committed it, although the file has one? Libuci calls unnamed
// sections by their places, so who read the package before the last change and saved after it has chosen the same name.
// Looks for as long as that may still come: 20 ms when others have just changed something, else once.
bool uci_name_taken(const char *package, const char *section);

// A heap copy of one option's value, freed by the caller, or null. Any thread.
char *uci_read_string(const char *key);

// "modem.settings.autoconnect": does the data connection come up by itself? *enabled is written only on 0. Any thread.
int uci_get_autoconnect(uint8_t *enabled);
// Through the router's own tool; the OR of its two exit statuses.
int uci_set_autoconnect(uint8_t enable);

// Sets "modem.state.message_unread" to 1 as a pending change, unless it is 1 already. 0 or an error number. Any thread.
int uci_set_message_unread();

// Folders other than the router's, for tests; null stands for the library's default. The texts are kept, not copied.
void uci_access_set_folders(const char *confdir, const char *savedir);
