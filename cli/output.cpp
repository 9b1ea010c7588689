#include "output.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "json.h"
#include "text.h"

constexpr size_t VALUE_COLUMN = 14;
constexpr size_t USUAL_WIDTH = 80;

static bool terminal = false;
static bool colours = false;
static bool coloured = false; // a colour other than plain is on

void output_start(bool json)
{
    json_start(json);
    terminal = isatty(STDOUT_FILENO) == 1;
    const char *kind = getenv("TERM");
    const char *none = getenv("NO_COLOR");
    colours = terminal && kind && *kind && strcmp(kind, "dumb") != 0 && !(none && *none);
}

void output_flush()
{
    (void)fflush(stdout); // output_end() reports what could not be written
}

bool output_end()
{
    print_colour(Colour::plain);
    return fflush(stdout) == 0 && !ferror(stdout);
}

bool output_is_terminal()
{
    return terminal && !json_wanted();
}

size_t output_width()
{
    winsize size = {};
    if (!terminal || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return USUAL_WIDTH;
    return size.ws_col;
}

static void print_escaped(std::string_view text, Escapes escapes)
{
    while (!text.empty()) {
        char one[ESCAPED_SIZE];
        escape_character(text, escapes, one);
        fputs(one, stdout);
    }
}

static void print_formatted(const char *format, va_list arguments, const char *when_empty)
{
    char *text = nullptr;
    int length = vasprintf(&text, format, arguments);
    if (length < 0)
        return;
    if (length > 0)
        print_escaped({text, static_cast<size_t>(length)}, Escapes::text);
    else
        fputs(when_empty, stdout);
    free(text);
}

void row_begin(const char *label)
{
    if (!json_wanted() && label)
        printf("%-*s", static_cast<int>(VALUE_COLUMN), label);
}

void row_end()
{
    print_colour(Colour::plain);
    if (!json_wanted())
        putchar('\n');
}

void print_row(const char *label, const char *format, ...)
{
    if (json_wanted())
        return;
    va_list arguments;
    va_start(arguments, format);
    row_begin(label);
    print_formatted(format, arguments, "unknown");
    row_end();
    va_end(arguments);
}

void print_line(const char *format, ...)
{
    if (json_wanted())
        return;
    va_list arguments;
    va_start(arguments, format);
    print_formatted(format, arguments, "");
    row_end();
    va_end(arguments);
}

void print_piece(const char *format, ...)
{
    if (json_wanted())
        return;
    va_list arguments;
    va_start(arguments, format);
    print_formatted(format, arguments, "");
    va_end(arguments);
}

void print_colour(Colour colour)
{
    if (!colours || json_wanted() || (colour == Colour::plain && !coloured))
        return;
    static const char codes[][3] = {"0", "1", "2", "31", "33", "32"};
    printf("\x1b[%sm", codes[static_cast<int>(colour)]);
    coloured = colour != Colour::plain;
}

void restart_line()
{
    if (output_is_terminal())
        fputs("\r\x1b[K", stdout);
}

void print_text(std::string_view text)
{
    if (!json_wanted())
        print_escaped(text, Escapes::lines);
}
