// One function for each measurement; the number is that of its tables and goals. Each throws when something fails.
#pragma once

#include "report.h"

struct Scale {
    bool quick;

    int of(int full, int small) const
    {
        return quick ? small : full;
    }
};

void measure_queries(const Scale &scale, Report *report);       // 1 and 2
void measure_messages(const Scale &scale, Report *report);      // 3
void measure_idle(const Scale &scale, Report *report);          // 4
void measure_memory(const Scale &scale, Report *report);        // 5
void measure_start(const Scale &scale, Report *report);         // 6
void measure_store(const Scale &scale, Report *report);         // 7
void measure_pool_queue(const Scale &scale, Report *report);    // 8
void measure_waiting_calls(const Scale &scale, Report *report); // 9
