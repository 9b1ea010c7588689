// A list of records on standard output: with --json an array of objects, otherwise a table with headings. On a terminal
// the last column is cut to the terminal's width.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

struct Column {
    char name[13];    // of the JSON member; empty for a column that JSON has not
    char heading[15]; // empty for a column that only JSON has
    bool right;       // aligned to the right
};

// name: of the JSON array, inside the object that json_open() opened. Then, for each record, the cells of all columns
// in order; then table_end(). `columns` must live until then.
void table_begin(const char *name, std::span<const Column> columns);
void cell_text(const char *value);                    // null: null in JSON, "-" in the table
void cell_text(const char *value, const char *shown); // `value` in JSON, `shown` in the table
void cell_number(std::optional<int64_t> value);
void cell_number(std::optional<int64_t> value, const char *shown);
void cell_tenths(std::optional<int32_t> tenths);                            // -85 is -8.5
void cell_bool(std::optional<bool> value, const char *yes, const char *no); // true and false in JSON, yes or no as text
// An empty table prints the line `none`. False without memory for the table.
bool table_end(const char *none);
