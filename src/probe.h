// A quick look at the modem's identity, for other programs on the router, before the daemon opens the AT port for
// itself. Runs once, on the main thread, before any other thread exists.
#pragma once

#include <span>
#include <string_view>

constexpr size_t MODEM_INFO_SIZE = 256; // of the line, with its terminating zero

// Asks /dev/mhi_at and writes what it answers to /tmp/qz_modem_info. Does nothing when the configured port is unset or
// missing.
void probe_modem_info();

// The same with any device and file. The file (the line and its terminating zero) is replaced whole, and only when the
// device tells at least the IMEI. Takes 2 s at most whatever the device does; nothing is created in the place of a
// device that is missing.
void probe_device(const char *device, const char *info_file);

// "<IMEI>[,model][,manufacturer][,ATI9 value][,ATI8 value]" cut out of the modem's answers into `line`. False when
// there is no IMEI, when a value has no end or when the line does not fit.
bool modem_info_line(std::string_view answers, std::span<char> line);
