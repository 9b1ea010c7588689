#include "profile_store.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "at_packet.h"
#include "log.h"
#include "result.h"
#include "shell.h"
#include "text_cut.h"
#include "uci_access.h"

constexpr const char *PACKAGE = "profiles";
constexpr size_t KEY_SIZE = 192;
constexpr int PLACES_TRIED = 5;

enum class FieldType : uint8_t { NUMBER, TEXT, SECRET };

// The options of a profile, in the order in which they are read, written and printed.
struct ProfileField {
    const char *option;
    FieldType type;
    int32_t ApnProfile::*number;
    const char *ApnProfile::*text;
};

static const ProfileField FIELDS[] = {
    {"ip_family", FieldType::NUMBER, &ApnProfile::ip_family, nullptr},
    {"apn", FieldType::TEXT, nullptr, &ApnProfile::apn},
    {"name", FieldType::TEXT, nullptr, &ApnProfile::name},
    {"username", FieldType::TEXT, nullptr, &ApnProfile::username},
    {"password", FieldType::SECRET, nullptr, &ApnProfile::password},
    {"auth", FieldType::NUMBER, &ApnProfile::auth, nullptr},
};
static const ProfileField IMS_FIELD = {"ims", FieldType::NUMBER, &ApnProfile::ims, nullptr};
constexpr size_t FIELD_COUNT = sizeof FIELDS / sizeof FIELDS[0];

// A value as it may be printed: one '*' for each character of a password.
struct ShownValue {
    char text[UCI_VALUE_MAX + 1];

    ShownValue(const ProfileField &field, const char *value)
    {
        size_t used = 0;
        for (; *value && used < UCI_VALUE_MAX; value++) {
            const bool continues_character = (static_cast<unsigned char>(*value) & 0xC0) == 0x80;
            if (field.type != FieldType::SECRET)
                text[used++] = *value;
            else if (!continues_character)
                text[used++] = '*';
        }
        text[used] = '\0';
    }
};

// `value` is a heap text; it belongs to the profile afterwards.
static void store_field(ApnProfile *record, const ProfileField &field, char *value)
{
    if (field.type == FieldType::NUMBER) {
        record->*field.number = leading_int(value);
        free(value);
        return;
    }
    free(const_cast<char *>(record->*field.text));
    record->*field.text = value;
}

static void load_field(UciSession *session, const char *section_key, const ProfileField &field, ApnProfile *record)
{
    char key[KEY_SIZE];
    char *value = nullptr;
    int length = snprintf(key, sizeof key, "%s.%s", section_key, field.option);
    if (length > 0 && static_cast<size_t>(length) < sizeof key && uci_session_value(session, key, &value) == 0)
        store_field(record, field, value);
}

int load_default_profile(ApnProfile *record, const char *section)
{
    char key[64];
    UciSession session;
    int length = snprintf(key, sizeof key, "default_profile.%s", section);
    if (length < 0 || static_cast<size_t>(length) >= sizeof key || uci_session_find(&session, key) != 0)
        return -1;
    for (const ProfileField &field : FIELDS)
        load_field(&session, key, field, record);
    load_field(&session, key, IMS_FIELD, record);
    return 0;
}

// The name of the section with that position. A negative one would count from the end of the package.
static int find_profile(UciSession *session, int32_t id, std::span<char> name)
{
    char key[64];
    if (id < 0)
        return -1;
    snprintf(key, sizeof key, "profiles.@profile[%d]", id);
    return uci_session_section_name(session, key, name);
}

static void section_key(char (&key)[KEY_SIZE], const char *section)
{
    snprintf(key, sizeof key, "%s.%.*s", PACKAGE, static_cast<int>(UCI_NAME_SIZE), section);
}

int read_profile(int32_t id, ApnProfile *record)
{
    UciSession session;
    char name[UCI_NAME_SIZE];
    char key[KEY_SIZE];
    int code = find_profile(&session, id, name);
    if (code != 0)
        return code;
    section_key(key, name);
    for (const ProfileField &field : FIELDS) {
        print_out("get profiles.%s.%s\n", name, field.option);
        load_field(&session, key, field, record);
    }
    return 0;
}

struct ProfileList {
    ApnProfile *records;
    uint32_t count;
    uint32_t capacity;
};

static bool count_section(void *state, const char *, const char *option, const char *)
{
    *static_cast<uint32_t *>(state) += !option;
    return true;
}

static bool collect_profile(void *state, const char *section, const char *option, const char *value)
{
    ProfileList *list = static_cast<ProfileList *>(state);
    if (!option) {
        if (list->count == list->capacity)
            return false;
        list->count++;
        print_out("section name: %s\n", section);
        return true;
    }
    for (const ProfileField &field : FIELDS) {
        if (strcmp(field.option, option) != 0)
            continue;
        char *copy = strdup(value);
        if (!copy)
            return false;
        store_field(&list->records[list->count - 1], field, copy);
        print_out("%s: %s\n", option, ShownValue(field, value).text);
    }
    return true;
}

int list_profiles(ApnProfile **records, uint32_t *count)
{
    UciSession session;
    uint32_t sections = 0;
    int code = uci_session_walk(&session, PACKAGE, count_section, &sections);
    if (code != 0)
        return code;
    ProfileList list = {nullptr, 0, sections};
    list.records = static_cast<ApnProfile *>(calloc(sections ? sections : 1, sizeof(ApnProfile)));
    if (!list.records)
        return -1;
    code = uci_session_walk(&session, PACKAGE, collect_profile, &list);
    if (code != 0) {
        free_profiles(list.records, list.count);
        return code;
    }
    *records = list.records;
    *count = list.count;
    return 0;
}

// The texts that a record gives to each option, null where it gives none.
struct FieldValues {
    char digits[FIELD_COUNT][12];
    const char *texts[FIELD_COUNT];
};

static bool fill_values(const ApnProfile *record, bool everything, FieldValues *values)
{
    for (size_t i = 0; i < FIELD_COUNT; i++) {
        const ProfileField &field = FIELDS[i];
        const char *text = nullptr;
        if (field.type == FieldType::NUMBER) {
            snprintf(values->digits[i], sizeof values->digits[i], "%d", record->*field.number);
            text = everything || record->*field.number != NOT_GIVEN ? values->digits[i] : nullptr;
        } else {
            text = record->*field.text;
            if (!text && everything)
                text = "";
        }
        values->texts[i] = text;
        if (text && strlen(text) > UCI_VALUE_MAX) {
            log_error("%s of a profile is longer than %zu bytes", field.option, UCI_VALUE_MAX);
            return false;
        }
        if (text && !uci_value_is_text(text)) {
            log_error("%s of a profile holds a control character", field.option);
            return false;
        }
    }
    return true;
}

static int set_values(UciSession *session, const char *section, const FieldValues &values)
{
    int code = 0;
    for (size_t i = 0; i < FIELD_COUNT; i++) {
        if (!values.texts[i])
            continue;
        print_out("set profiles.%s.%s=%s\n", section, FIELDS[i].option, ShownValue(FIELDS[i], values.texts[i]).text);
        code |= uci_session_set(session, PACKAGE, section, FIELDS[i].option, values.texts[i]);
    }
    return code;
}

struct ProfileChange {
    int32_t id;
    const FieldValues *values;
    char name[UCI_NAME_SIZE]; // of a section that was added
};

static int append_profile(UciSession *session, void *state)
{
    ProfileChange *change = static_cast<ProfileChange *>(state);
    int code = uci_session_add(session, PACKAGE, "profile", change->name);
    return code != 0 ? code : set_values(session, change->name, *change->values);
}

// Somebody else has saved a section under the name that ours got. Theirs keeps the name with everything that was set in
// it, and ours is added at the end.
static int move_profile(UciSession *session, void *state)
{
    ProfileChange *change = static_cast<ProfileChange *>(state);
    for (size_t i = 0; i < FIELD_COUNT; i++) {
        char key[KEY_SIZE];
        char *value = nullptr;
        snprintf(key, sizeof key, "%s.%s.%s", PACKAGE, change->name, FIELDS[i].option);
        if (uci_session_value(session, key, &value) != 0)
            continue;
        int code = strcmp(value, change->values->texts[i]) == 0 ? uci_session_delete(session, key) : 0;
        free(value);
        if (code != 0)
            return code;
    }
    return append_profile(session, state);
}

int add_profile_section(const ApnProfile *record)
{
    FieldValues values;
    if (!fill_values(record, true, &values))
        return -1;
    ProfileChange change = {0, &values, ""};
    int code = uci_change_package(PACKAGE, append_profile, &change);
    for (int i = 0; i < PLACES_TRIED && code == 0 && uci_name_taken(PACKAGE, change.name); i++)
        code = uci_change_package(PACKAGE, move_profile, &change);
    return code;
}

static int change_profile(UciSession *session, void *state)
{
    const ProfileChange *change = static_cast<ProfileChange *>(state);
    char name[UCI_NAME_SIZE];
    int code = find_profile(session, change->id, name);
    return code != 0 ? code : set_values(session, name, *change->values);
}

int modify_profile_section(int32_t id, const ApnProfile *record)
{
    FieldValues values;
    if (!fill_values(record, false, &values))
        return -1;
    ProfileChange change = {id, &values, ""};
    return uci_change_package(PACKAGE, change_profile, &change);
}

static int remove_profile(UciSession *session, void *state)
{
    char name[UCI_NAME_SIZE];
    char key[KEY_SIZE];
    int code = find_profile(session, static_cast<ProfileChange *>(state)->id, name);
    if (code != 0)
        return code;
    section_key(key, name);
    return uci_session_delete(session, key);
}

int delete_profile_section(int32_t id)
{
    if (id == ALL_PROFILES) {
        (void)run_shell("echo \"\" > /etc/config/profiles");
        return 0;
    }
    ProfileChange change = {id, nullptr, ""};
    return uci_change_package(PACKAGE, remove_profile, &change);
}

void free_profile(ApnProfile *record)
{
    for (const ProfileField &field : FIELDS) {
        if (field.type == FieldType::NUMBER)
            continue;
        free(const_cast<char *>(record->*field.text));
        record->*field.text = nullptr;
    }
}

void free_profiles(ApnProfile *records, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++)
        free_profile(&records[i]);
    free(records);
}

int apply_profile(int32_t cid, const ApnProfile *record)
{
    if (record && at_check_pdp_profile(cid, record) != RESULT_OK)
        return static_cast<int>(RESULT_ERROR);
    (void)at_set_pdp_auth(cid, record); // what the modem says is in the request API's log
    (void)at_set_pdp_context(cid, record);
    return 0;
}
