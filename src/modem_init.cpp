#include "modem_init.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "at_mask.h"
#include "at_misc.h"
#include "at_packet.h"
#include "at_rat.h"
#include "at_text.h"
#include "config.h"
#include "files.h"
#include "log.h"
#include "profile_store.h"
#include "request.h"
#include "result.h"
#include "sku_profile.h"
#include "uci_access.h"
#include "waiting.h"

constexpr int TRIES = 3;

// A setting with its guard: `command` is sent; when its answer holds `marker` (set_if ABSENT: does not hold it),
// `setting` follows.
enum class SetIf : uint8_t { NEVER, PRESENT, ABSENT };

struct GuardedSetting {
    const char *command;
    const char *failure; // log line when `command` fails
    SetIf set_if;
    const char *marker;
    const char *setting;
};

static const GuardedSetting SETTINGS[] = {
    {"ATE0", "ATE0 failed", SetIf::NEVER, nullptr, nullptr},
    {"AT+GTPCMOUT?", "AT+GTPCMOUT? failed", SetIf::PRESENT, "+GTPCMOUT: 0", "AT+GTPCMOUT=1"},
    {"AT+MSMPD?", "AT+MSMPD? failed", SetIf::PRESENT, "+MSMPD: 0", "AT+MSMPD=1"},
    {"AT+SIMSWAPCFG?", "AT+SIMSWAPCFG? failed", SetIf::PRESENT, "+SIMSWAPCFG: 1", "AT+SIMSWAPCFG=0"},
    {"AT+CMGF?", "AT+CMGF? failed", SetIf::ABSENT, "+CMGF: 0", "AT+CMGF=0"},
    {"AT+CPMS=\"SM\",\"SM\",\"SM\"", "set preferred message storage failed", SetIf::NEVER, nullptr, nullptr},
    {"AT+CNMI?", "AT+CNMI? failed", SetIf::ABSENT, "+CNMI: 2,1,0,0,0", "AT+CNMI=2,1"},
};

static int execute(const char *command)
{
    char *answer = nullptr;
    int code = exec_retry(command, &answer, 1, TRIES);
    free(answer);
    if (code != 0)
        CELMUX_LOG(LOG_INFO, "%s failed", "set_modem", command);
    return code != 0 ? -1 : 0;
}

static int apply_setting(const GuardedSetting &row)
{
    char *answer = nullptr;
    if (exec_retry(row.command, &answer, 1, TRIES) != 0) {
        CELMUX_LOG(LOG_INFO, "%s", "set_modem", row.failure);
        free(answer);
        return -1;
    }
    const bool present = row.marker && answer && strstr(answer, row.marker);
    free(answer);
    if (row.set_if == SetIf::NEVER || present != (row.set_if == SetIf::PRESENT))
        return 0;
    return execute(row.setting);
}

// The integer value of an option; false when it is not set.
static bool read_number(const char *key, int32_t *value)
{
    char *text = uci_read_string(key);
    if (!text)
        return false;
    *value = leading_int(text);
    free(text);
    return true;
}

static void apply_ims_profile(int32_t ims_flag, const ApnProfile *ims)
{
    (void)at_set_ims_voice(ims_flag); // a modem without the switch works all the same
    if (!ims_flag)
        return;
    CELMUX_LOG(LOG_INFO, "Apply default ims profile to modem", "set_modem");
    (void)apply_profile(IMS_CONTEXT, ims);
}

static void apply_data_profile(const ApnProfile *data)
{
    constexpr int32_t OPERATOR_DEFAULT = 999;
    int32_t apn_id;
    if (!read_number("apn.apnapply.apnid", &apn_id) || apn_id != OPERATOR_DEFAULT)
        return;
    CELMUX_LOG(LOG_INFO, "Apply default apn profile to modem", "set_modem");
    (void)apply_profile(DATA_CONTEXT, data);
}

static void apply_default_profiles()
{
    constexpr int32_t IPV4V6 = 3;
    ApnProfile data = {};
    ApnProfile ims = {};
    bool ims_present = false;
    data.ip_family = IPV4V6;
    data.ims = 1;
    ims.ip_family = IPV4V6;
    if (file_exists(DEFAULT_PROFILE_LINK)) {
        (void)load_default_profile(&data, "profile"); // missing, the values above stand
        ims_present = load_default_profile(&ims, "ims") != -1;
    }
    apply_ims_profile(data.ims, ims_present ? &ims : nullptr);
    free_profile(&ims);
    apply_data_profile(&data);
    free_profile(&data);
}

static int set_network_mode()
{
    constexpr size_t MODES_AT_START = std::size(network_modes) - 1;
    constexpr NetworkMode NO_NETWORK_MODE = {{}, STAND_ALONE_UNCHANGED};
    int32_t value;
    const bool known =
        read_number("apn.networkmode.mode", &value) && value >= 0 && static_cast<size_t>(value) < MODES_AT_START;
    const NetworkMode &mode = known ? network_modes[value] : NO_NETWORK_MODE;
    int status = 0;
    if (mode.stand_alone != STAND_ALONE_UNCHANGED)
        status |= static_cast<int>(at_set_5gsa(mode.stand_alone));
    if (at_select_rat(&mode.selection) != RESULT_OK) {
        CELMUX_LOG(LOG_ERR, "Set network mode failed", "set_modem");
        status = -1;
    }
    return status;
}

static int switch_radio_on()
{
    uint8_t autoconnect = 0;
    if (uci_get_autoconnect(&autoconnect) != 0) {
        CELMUX_LOG(LOG_ERR, "Get uci modem.settings.autoconnect failed", "set_modem");
        return 0;
    }
    return autoconnect ? execute("AT+CFUN=1") : 0;
}

int set_modem()
{
    int status = 0;
    for (const GuardedSetting &row : SETTINGS)
        status |= apply_setting(row);
    if (!running.load())
        return -1;
    link_default_profile();
    apply_default_profiles();
    status |= set_network_mode();
    status |= switch_radio_on();
    status |= execute("AT+GTCELLINFO=1");
    (void)at_enqueue("AT+COPS=?\r", 0); // a router without a first scan result works all the same
    return status;
}

static bool pre_execute(const char *command)
{
    Masked shown(command);
    CELMUX_LOG(LOG_INFO, "pre execute \"%s\"", "handle_pre_execute_cmds", shown.text);
    for (int i = 0; i < TRIES && running.load(); i++) {
        AtAnswer answer;
        const int code = request(command, &answer.text, nullptr, 1, AT_TIMEOUT_MS);
        if (code == 0 && answer.text)
            CELMUX_LOG(LOG_INFO, "Result: %s", "handle_pre_execute_cmds", Masked(answer.text).text);
        if (code == 0 && at_classify(answer.text, nullptr) == RESULT_OK)
            return true;
        CELMUX_LOG(LOG_INFO, "execute %s failed", "handle_pre_execute_cmds", shown.text);
    }
    return false;
}

int handle_pre_execute_cmds()
{
    if (!pre_execute_cmd_list || pre_execute_cmd_list_len == 0)
        return -1;
    int result = 0;
    for (uint32_t i = 0; i < pre_execute_cmd_list_len; i++) {
        PreExecuteCmd *entry = &pre_execute_cmd_list[i];
        if (!entry->command)
            continue;
        if (!pre_execute(entry->command)) {
            result = -1;
            continue;
        }
        entry->done = 1;
        free(entry->command);
        entry->command = nullptr;
    }
    if (result == 0)
        free_pre_execute();
    return result;
}
