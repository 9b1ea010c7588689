// Key names are looked up without regard to case. A key of the wrong JSON type is ignored and the default stays, except
// where the daemon cannot work without it.

#include "config.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <strings.h>

#include <cjson/cJSON.h>

#include "at_mask.h"
#include "files.h"
#include "log.h"

constexpr uint32_t BURST_GAP_MAX_MS = 1000;
constexpr long CONFIG_SIZE_MAX = 1 << 20; // a configuration is a page; a megabyte is something else

Settings settings_g = {nullptr, PORT_SERIAL, 115200, 8, 0, 0, 0, 5, 1};
cJSON *json_g;
PreExecuteCmd *pre_execute_cmd_list;
uint32_t pre_execute_cmd_list_len;

static char *read_whole(FILE *file, size_t *length)
{
    long size = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
    if (size < 0 || size > CONFIG_SIZE_MAX || fseek(file, 0, SEEK_SET) != 0)
        return nullptr;
    char *text = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
    if (text) {
        *length = fread(text, 1, static_cast<size_t>(size), file);
        text[*length] = '\0';
    }
    return text;
}

int read_json(const char *path)
{
    if (!file_exists(path)) {
        log_error("configuration file not exist.");
        return -1;
    }
    FILE *file = fopen(path, "rbe");
    if (!file) {
        log_error("open configuration file failed: %d, %s", errno, strerror(errno));
        return -1;
    }
    size_t length = 0;
    char *text = read_whole(file, &length);
    fclose(file);
    if (!text) {
        log_error("load configuration file failed.");
        return -1;
    }
    json_g = cJSON_ParseWithLength(text, length);
    if (!json_g && cJSON_GetErrorPtr())
        log_error("error before: %s", Masked(cJSON_GetErrorPtr()).text);
    free(text);
    return json_g ? 0 : -1;
}

static void read_number(const cJSON *settings, const char *key, uint32_t *value)
{
    const cJSON *item = cJSON_GetObjectItem(settings, key);
    if (!cJSON_IsNumber(item))
        return;
    double number = item->valuedouble;
    if (number >= 0 && number <= UINT32_MAX)
        *value = static_cast<uint32_t>(number);
    else
        *value = number > 0 ? UINT32_MAX : 0;
}

// The position of `text` among the names, or -1.
static int index_of(const char *text, std::span<const char *const> names)
{
    for (size_t i = 0; i < names.size(); i++) {
        if (strcasecmp(text, names[i]) == 0)
            return static_cast<int>(i);
    }
    return -1;
}

// Sets *value to the position of the member's text among the names; it stays when there is no such member. Returns -1
// for any other text, after a log line that gives the `supported` ones.
static int read_choice(const cJSON *settings, const char *key, std::span<const char *const> names, const char *what,
                       const char *supported, uint32_t *value)
{
    const cJSON *item = cJSON_GetObjectItem(settings, key);
    if (!cJSON_IsString(item))
        return 0;
    int index = index_of(item->valuestring, names);
    if (index < 0) {
        CELMUX_LOG(LOG_ERR, "invalid %s setting: %s(only support %s)", "parse_settings", what, item->valuestring,
                   supported);
        return -1;
    }
    *value = static_cast<uint32_t>(index);
    return 0;
}

static int parse_serial(const cJSON *settings)
{
    static const char *const stopbits[] = {"1", "1.5", "2"};
    static const char *const parities[] = {"none", "even", "odd", "mark", "space"};
    static const char *const flowcontrols[] = {"none", "software", "hardware"};

    read_number(settings, "serial_speed", &settings_g.serial_speed);
    read_number(settings, "serial_databits", &settings_g.serial_databits);
    if (read_choice(settings, "serial_stopbits", stopbits, "stop bit", R"("1","1.5","2")",
                    &settings_g.serial_stopbits) != 0 ||
        read_choice(settings, "serial_parity", parities, "parity", R"("none","even","odd","mark","space")",
                    &settings_g.serial_parity) != 0)
        return -1;
    return read_choice(settings, "serial_flowcontrol", flowcontrols, "flowcontrol", R"("software","hardware")",
                       &settings_g.serial_flowcontrol);
}

int parse_settings()
{
    if (!json_g) {
        log_error("configurations not loaded");
        return -1;
    }
    const cJSON *settings = cJSON_GetObjectItem(json_g, "settings");
    if (!settings)
        return 0;
    const cJSON *port = cJSON_GetObjectItem(settings, "port");
    if (!cJSON_IsString(port)) {
        log_error("port not defined or not valid");
        return -1;
    }
    settings_g.port = port->valuestring;
    const cJSON *type = cJSON_GetObjectItem(settings, "type");
    if (!cJSON_IsString(type)) {
        log_error("port type not specified. (support \"file\",\"serial\")");
        return -1;
    }
    static const char *const types[] = {"file", "serial"};
    int index = index_of(type->valuestring, types);
    if (index < 0) {
        log_error("invalid port type: %s(only support \"file\",\"serial\")", type->valuestring);
        return -1;
    }
    settings_g.port_type = static_cast<uint32_t>(index);
    if (settings_g.port_type == PORT_SERIAL && parse_serial(settings) == -1)
        return -1;
    read_number(settings, "requester_interval_s", &settings_g.requester_interval_s);
    read_number(settings, "burst_gap_ms", &settings_g.burst_gap_ms);
    if (settings_g.burst_gap_ms > BURST_GAP_MAX_MS) {
        log_error("burst_gap_ms above %u, taken as %u", BURST_GAP_MAX_MS, BURST_GAP_MAX_MS);
        settings_g.burst_gap_ms = BURST_GAP_MAX_MS;
    }
    return 0;
}

// Reads the texts of a JSON array; an item that is no text becomes null. `missing` is the log's name for an item that
// cannot be fetched.
static char *copy_item(const cJSON *item, const char *function)
{
    if (!cJSON_IsString(item)) {
        CELMUX_LOG(LOG_ERR, "json value type invalid", function);
        return nullptr;
    }
    return strdup(item->valuestring);
}

int load_pre_execute()
{
    if (!json_g) {
        log_error("configurations not loaded");
        return -1;
    }
    const cJSON *commands = cJSON_GetObjectItem(json_g, "pre_execute_cmds");
    if (!commands) {
        log_error("no 'pre_execute_cmds' defined");
        return 0;
    }
    int count = cJSON_GetArraySize(commands);
    if (count == 0) {
        log_error("no pre execute command");
        return 0;
    }
    pre_execute_cmd_list = static_cast<PreExecuteCmd *>(calloc(static_cast<size_t>(count), sizeof(PreExecuteCmd)));
    if (!pre_execute_cmd_list) {
        log_error("allocate memory for pre_execute_cmd_list failed");
        return 0;
    }
    pre_execute_cmd_list_len = static_cast<uint32_t>(count);
    const cJSON *item = commands->child;
    for (int i = 0; i < count; i++, item = item->next)
        pre_execute_cmd_list[i].command = copy_item(item, __func__);
    return 0;
}

int load_expected_results(ExpectedResults **expected_results)
{
    assert(expected_results != nullptr);
    if (!json_g) {
        log_error("configurations not loaded");
        return -1;
    }
    const cJSON *results = cJSON_GetObjectItem(json_g, "results");
    if (!results) {
        log_error("no 'results' defined");
        return -1;
    }
    int count = cJSON_GetArraySize(results);
    if (count == 0) {
        log_error("'results' empty");
        return -1;
    }
    ExpectedResults *list = static_cast<ExpectedResults *>(calloc(1, sizeof(ExpectedResults)));
    char **entries = static_cast<char **>(calloc(static_cast<size_t>(count), sizeof(char *)));
    if (!list || !entries) {
        free(list);
        free(entries);
        log_error("allocate memory for expected results failed");
        return -1;
    }
    list->count = static_cast<uint32_t>(count);
    list->entries = entries;
    const cJSON *item = results->child;
    for (int i = 0; i < count; i++, item = item->next)
        list->entries[i] = copy_item(item, __func__);
    for (uint32_t i = 0; i < list->count; i++) {
        if (list->entries[i])
            log_info("String: %s", list->entries[i]);
    }
    *expected_results = list;
    return 0;
}

void free_expected_results(ExpectedResults *list)
{
    if (!list)
        return;
    for (uint32_t i = 0; i < list->count; i++)
        free(list->entries[i]);
    free(list->entries);
    free(list);
}

void free_pre_execute()
{
    for (uint32_t i = 0; i < pre_execute_cmd_list_len; i++)
        free(pre_execute_cmd_list[i].command);
    free(pre_execute_cmd_list);
    pre_execute_cmd_list = nullptr;
    pre_execute_cmd_list_len = 0;
}

void free_configuration()
{
    cJSON_Delete(json_g);
    json_g = nullptr;
    settings_g.port = nullptr;
    free_pre_execute();
}
