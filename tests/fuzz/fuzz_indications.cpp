// Hands any bytes to the indication handler as a burst of the modem. Nothing leaves the process: the units around it
// are replaced here.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "file_ops.h"
#include "indications.h"
#include "message_index.h"
#include "message_store.h"
#include "request.h"
#include "resp_processor.h"
#include "shell.h"
#include "uci_access.h"

std::atomic<uint8_t> g_sms_sweep{0};

void *resp_processor(void *)
{
    return nullptr;
}

int sms_index_enqueue(int32_t)
{
    return 0;
}

void sms_index_done(int32_t) {}

int run_shell(const char *command)
{
    return strlen(command) < 4096 ? 0 : -1;
}

int run_shell_format(const char *, ...)
{
    return 0;
}

int run_command_output(const char *, char[COMMAND_OUTPUT_SIZE])
{
    return -1;
}

int request(const char *, char **, const char *, int, uint32_t)
{
    return -1;
}

int at_enqueue(const char *, int)
{
    return 0;
}

int exec_retry(const char *, char **, int, int)
{
    return -1;
}

int send_message_request(const char *, int, uint32_t)
{
    return -1;
}

// A file system that is full: the store stays in memory.
int file_open(const char *, int)
{
    return -1;
}

ssize_t file_read(int, void *, size_t)
{
    return -1;
}

int file_write(int, const void *, size_t)
{
    return -1;
}

int file_sync(int)
{
    return -1;
}

int file_truncate(int, uint64_t)
{
    return -1;
}

int file_identity(int, FileIdentity *)
{
    return -1;
}

int file_identity_of(const char *, FileIdentity *)
{
    return -1;
}

int file_make_folder(const char *)
{
    return -1;
}

int file_close(int)
{
    return 0;
}

int file_rename(const char *, const char *)
{
    return -1;
}

int file_unlink(const char *)
{
    return -1;
}

int file_link(const char *, const char *)
{
    return -1;
}

int file_sync_folder(const char *)
{
    return -1;
}

bool file_present(const char *)
{
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    uci_access_set_folders("/nowhere", "/nowhere");
    array_clear(&message_array); // also makes it present
    handle_indications({reinterpret_cast<const char *>(data), size});
    return 0;
}
