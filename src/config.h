// The configuration file "/etc/ril.json": read once at start by main, kept for the life of the process.
#pragma once

#include <cstdint>

struct cJSON;

constexpr uint32_t PORT_FILE = 0;
constexpr uint32_t PORT_SERIAL = 1;

struct Settings {
    const char *port;               // points into json_g
    uint32_t port_type;             // PORT_FILE or PORT_SERIAL
    uint32_t serial_speed;          // bit/s
    uint32_t serial_databits;       // 5 to 8, checked by config_serial_port
    uint32_t serial_stopbits;       // 0 "1", 1 "1.5", 2 "2"
    uint32_t serial_parity;         // 0 none, 1 even, 2 odd, 3 mark, 4 space
    uint32_t serial_flowcontrol;    // 0 none, 1 software, 2 hardware
    uint32_t requester_interval_s;  // routine interval in seconds
    uint32_t burst_gap_ms;          // so much silence ends a burst of input, 0 to 1000
};

struct PreExecuteCmd {
    char *command; // heap text, or null when unreadable or done
    uint8_t done;
};

// Final-result prefixes: heap texts, null for an entry that is not a string.
struct ExpectedResults {
    uint32_t count;
    char **entries;
};

extern Settings settings_g;
extern cJSON *json_g;
extern PreExecuteCmd *pre_execute_cmd_list;
extern uint32_t pre_execute_cmd_list_len;

// All return 0, or -1 after a log line.
int read_json(const char *path);
int parse_settings();
int load_pre_execute();
// Builds the list in *expected_results (not null), freed with free_expected_results.
int load_expected_results(ExpectedResults **expected_results);

void free_expected_results(ExpectedResults *list); // null is allowed
void free_pre_execute();
void free_configuration(); // json_g and the pre-execute list; after all threads have ended
