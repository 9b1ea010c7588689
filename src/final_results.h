// The final results that the configuration lists, such as "OK" and "+CME ERROR" (3GPP TS 27.007, ITU-T V.250 5.7.1),
// and what they tell of a text from the modem. A line is a final result when it begins with one of them.
#pragma once

#include <cstddef>

// Reads the list from the configuration; until then, and when there is none, no line is a result. Only the response
// processor.
void load_results();
// Frees the list; after response processor and listener have ended.
void free_results();

// The rest may be called by any thread.

// The last line of a text, with its line end: what stands behind the last "\n" that is followed by another character.
const char *last_line(const char *text);
// The entry of the list that the line begins with, or null.
const char *matching_result(const char *line);
// Does the text end with a whole line that is a result, or with the prompt of a message (3GPP TS 27.005 3.5.1)?
bool ends_with_result(const char *text);
// How many results the text holds, each in a line of its own; and what stands behind the line of the first one (the end
// of the text without one).
unsigned results_in(const char *text);
const char *behind_result(const char *text);
// Length of the text up to the end of the last line that is a result, when other lines follow it; 0 otherwise.
size_t length_to_last_result(const char *text);
