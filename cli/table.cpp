#include "table.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "json.h"
#include "output.h"
#include "text.h"

constexpr size_t MOST_COLUMNS = 16;
constexpr size_t LEAST_LAST_COLUMN = 10;
constexpr std::string_view COLUMN_GAP = "  ";

// The cells as escaped texts, each with its zero, in order.
static struct {
    std::span<const Column> columns;
    size_t place; // of the next cell within its record
    size_t records;
    char *cells;
    size_t used;
    size_t size;
    bool failed;
} table;

void table_begin(const char *name, std::span<const Column> columns)
{
    free(table.cells);
    table = {};
    table.columns = columns.first(std::min(columns.size(), MOST_COLUMNS));
    json_open(name, '[');
}

static bool make_room(size_t more)
{
    if (table.used + more <= table.size)
        return true;
    size_t size = std::max(table.size * 2, table.used + more);
    char *moved = static_cast<char *>(realloc(table.cells, size));
    if (!moved) {
        table.failed = true;
        return false;
    }
    table.cells = moved;
    table.size = size;
    return true;
}

static void keep_cell(const char *shown)
{
    std::string_view rest(shown);
    if (table.failed || json_wanted() || !make_room(rest.size() * 4 + ESCAPED_SIZE)) // a byte makes \x1b at worst
        return;
    while (!rest.empty()) {
        char one[ESCAPED_SIZE];
        size_t length = escape_character(rest, Escapes::text, one);
        memcpy(table.cells + table.used, one, length);
        table.used += length;
    }
    table.cells[table.used++] = '\0';
}

// The name of the cell's member; null when JSON has none of it.
static const char *begin_cell()
{
    if (table.place == 0)
        json_open(nullptr, '{');
    const char *name = table.columns[table.place].name;
    return *name ? name : nullptr;
}

static void end_cell(const char *shown)
{
    if (*table.columns[table.place].heading)
        keep_cell(shown ? shown : "-");
    table.place++;
    if (table.place < table.columns.size())
        return;
    table.place = 0;
    table.records++;
    json_close();
}

void cell_text(const char *value, const char *shown)
{
    const char *name = begin_cell();
    if (name)
        json_text(name, value);
    end_cell(shown);
}

void cell_text(const char *value)
{
    cell_text(value, value);
}

void cell_number(std::optional<int64_t> value, const char *shown)
{
    const char *name = begin_cell();
    if (name)
        json_number(name, value);
    end_cell(shown);
}

void cell_number(std::optional<int64_t> value)
{
    char shown[24];
    snprintf(shown, sizeof(shown), "%lld", static_cast<long long>(value.value_or(0)));
    cell_number(value, value ? shown : nullptr);
}

void cell_tenths(std::optional<int32_t> tenths)
{
    char shown[24];
    snprintf(shown, sizeof(shown), "%.1f", tenths.value_or(0) / 10.0);
    const char *name = begin_cell();
    if (name)
        json_tenths(name, tenths);
    end_cell(tenths ? shown : nullptr);
}

void cell_bool(std::optional<bool> value, const char *yes, const char *no)
{
    const char *name = begin_cell();
    if (name)
        json_bool(name, value);
    end_cell(!value ? nullptr : *value ? yes : no);
}

static void find_widths(std::span<const Column> shown, std::span<size_t> widths)
{
    const char *cell = table.cells;
    for (size_t i = 0; i < shown.size(); i++)
        widths[i] = text_width(shown[i].heading);
    for (size_t record = 0; record < table.records; record++) {
        for (size_t i = 0; i < shown.size(); i++) {
            widths[i] = std::max(widths[i], text_width(cell));
            cell += strlen(cell) + 1;
        }
    }
}

static void print_blanks(size_t count)
{
    for (; count > 0; count--)
        putchar(' ');
}

static void print_cell(const Column &column, const char *cell, size_t width, bool last)
{
    size_t taken = text_width(cell);
    size_t blanks = width > taken ? width - taken : 0;
    if (column.right)
        print_blanks(blanks);
    if (taken <= width || !output_is_terminal())
        fputs(cell, stdout);
    else
        printf("%.*s…", static_cast<int>(fitting_bytes(cell, width - 1)), cell);
    if (last)
        return;
    if (!column.right)
        print_blanks(blanks);
    fputs(COLUMN_GAP.data(), stdout);
}

static void print_table()
{
    Column shown[MOST_COLUMNS] = {};
    size_t widths[MOST_COLUMNS] = {};
    size_t count = 0;
    for (const Column &column : table.columns)
        if (*column.heading)
            shown[count++] = column;
    find_widths({shown, count}, {widths, count});
    size_t others = 0;
    for (size_t i = 0; i + 1 < count; i++)
        others += widths[i] + COLUMN_GAP.size();
    if (output_is_terminal() && count > 0 && others + widths[count - 1] > output_width())
        widths[count - 1] = output_width() > others + LEAST_LAST_COLUMN ? output_width() - others : LEAST_LAST_COLUMN;

    print_colour(Colour::bold);
    for (size_t i = 0; i < count; i++)
        print_cell(shown[i], shown[i].heading, widths[i], i + 1 == count);
    row_end();
    const char *cell = table.cells;
    for (size_t record = 0; record < table.records; record++) {
        for (size_t i = 0; i < count; i++) {
            print_cell(shown[i], cell, widths[i], i + 1 == count);
            cell += strlen(cell) + 1;
        }
        row_end();
    }
}

bool table_end(const char *none)
{
    bool good = !table.failed;
    json_close();
    if (good && !json_wanted()) {
        if (table.records > 0)
            print_table();
        else
            print_line("%s", none);
    }
    free(table.cells);
    table = {};
    return good;
}
