// Another body for the log: tests read what was logged. Linking this unit into a test replaces src/log.cpp.
#pragma once

#include <string>
#include <syslog.h>
#include <vector>

struct LogLine {
    int level;        // -1 for print_out
    std::string text; // with its "[CELMUX: ...] " prefix
};

// Copies of the lines so far; any thread.
std::vector<LogLine> logged();
void clear_log();
// How many lines hold `text`, of any level or of the given one.
int log_count(const std::string &text, int level = -2);
