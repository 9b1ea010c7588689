// What the kernel knows of a process.
#pragma once

#include <cstdint>
#include <sys/types.h>

struct Activity {
    uint64_t wakeups;      // times that a thread went to sleep of its own accord, all threads
    uint64_t processor_ns; // processor time of all threads
    uint64_t ticks;        // the same in the kernel's clock ticks, sampled
};

Activity activity_of(pid_t pid);

struct Memory { // kB
    double private_dirty;
    double private_clean; // of mapped files: the kernel can drop it at any time
    double shared;
    double peak; // resident, of the process's life

    double private_all() const
    {
        return private_dirty + private_clean;
    }
};

Memory memory_of(pid_t pid);
