// Any bytes as the configuration file.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "config.h"

static int memory_file()
{
    static const int fd = memfd_create("config", MFD_CLOEXEC);
    if (fd == -1)
        abort();
    return fd;
}

static void check_settings()
{
    if (settings_g.port_type > PORT_SERIAL || settings_g.serial_stopbits > 2 || settings_g.serial_parity > 4 ||
        settings_g.serial_flowcontrol > 2)
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Settings defaults = settings_g;
    const int fd = memory_file();
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    settings_g = defaults;
    if (read_json(("/proc/self/fd/" + std::to_string(fd)).c_str()) == 0) {
        if (parse_settings() == 0)
            check_settings();
        if (load_pre_execute() == 0 && (pre_execute_cmd_list_len == 0) != (pre_execute_cmd_list == nullptr))
            abort();
        ExpectedResults *expected = nullptr;
        if (load_expected_results(&expected) == 0 && (!expected || expected->count == 0))
            abort();
        free_expected_results(expected);
    }
    free_configuration();
    return 0;
}
