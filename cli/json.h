// JSON on standard output: one object on one line for each answer. Names are those of the documentation and stay;
// numbers are numbers, what is unknown is null. Control characters and what else could drive a terminal are escaped.
// Without
// --json these functions print nothing; a command that always answers in JSON calls json_always() first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

extern "C" {
#include <libubox/blobmsg.h>
}

void json_start(bool json);
void json_always();
bool json_wanted();

// `name` is null inside an array and for the outermost value.
void json_open(const char *name, char bracket);                     // '{' or '['
void json_close();                                                  // the innermost; ends the line behind the outermost
void json_text(const char *name, const char *value);                // null for null
void json_text(const char *name, const char *value, size_t length); // may hold zeros
void json_number(const char *name, std::optional<int64_t> value);
void json_tenths(const char *name, std::optional<int32_t> tenths); // -85 is -8.5
void json_bool(const char *name, std::optional<bool> value);
// Any member of an answer, under its own name; in an array without it. What nests too deep becomes null.
void json_blob(blob_attr *member, bool in_array = false);
// All members of an answer, into the open object.
void json_members(blob_attr *message);
