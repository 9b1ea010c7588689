// The final result codes that the configuration lists, such as "OK" and "+CME ERROR" (3GPP TS 27.007 9.2, ITU-T
// V.250 5.7.1).
#pragma once

#include <string_view>

// Reads the list from the configuration; until then, and when there is none, no line is a final result code. Only the
// response processor.
void load_results();
// Frees the list; after response processor and listener have ended.
void free_results();

// The first entry of the list with which the line begins, or null. Any thread.
const char *matching_result(std::string_view line);
