// The only reader of the AT port: hands on what the modem sends as bursts, one heap text per stretch of input without a
// pause.
#pragma once

#include <cstdint>

#include "at_mask.h"

// Thread function.
void *at_listener(void *);

// The burst under way. `text` is zero-terminated heap memory of `capacity` bytes (a multiple of 1024), null between
// bursts.
struct Assembly {
    char *text;
    uint32_t capacity;
    uint32_t length;
    SecretScan scan; // of all that came from this port
};

// Appends a zero-terminated chunk. 0; -1 when the first allocation fails, -2 when growing fails (the chunk is lost
// then).
int append_resp(Assembly *assembly, const char *chunk);
