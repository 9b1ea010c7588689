// Names, growing texts and the words that both file grammars consist of.

#include "internal.h"

#include <cstdlib>
#include <cstring>

void text_append(uci_text &text, std::string_view more)
{
    if (text.out_of_memory || more.empty())
        return;
    if (more.size() > text.capacity - text.size) {
        size_t wanted = text.size + more.size();
        size_t capacity = wanted > text.capacity * 2 ? wanted : text.capacity * 2;
        auto *grown = static_cast<char *>(realloc(text.data, capacity));
        if (!grown) {
            text.out_of_memory = true;
            return;
        }
        text.data = grown;
        text.capacity = capacity;
    }
    memcpy(text.data + text.size, more.data(), more.size());
    text.size += more.size();
}

void text_append_quoted(uci_text &text, std::string_view value)
{
    text_append(text, "'");
    for (;;) {
        size_t quote = value.find('\'');
        text_append(text, slice(value, 0, quote));
        if (quote == std::string_view::npos)
            break;
        text_append(text, "'\\''");
        value.remove_prefix(quote + 1);
    }
    text_append(text, "'");
}

void text_free(uci_text &text)
{
    free(text.data);
    text = {};
}

static bool is_name_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Long enough for any name, short enough that the temporary file's name is a file name too.
constexpr size_t package_name_limit = 200;

bool valid_package_name(std::string_view name)
{
    for (char c : name)
        if (!is_name_char(c) && c != '-')
            return false;
    return !name.empty() && name.size() <= package_name_limit;
}

bool valid_name(std::string_view name)
{
    for (char c : name)
        if (!is_name_char(c))
            return false;
    return !name.empty();
}

bool valid_type(std::string_view type)
{
    for (char c : type)
        if (c <= ' ' || c > '~')
            return false;
    return !type.empty();
}

static bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

static void next_line(word_reader &reader)
{
    reader.pos++;
    reader.line++;
    reader.line_start = reader.pos;
}

void skip_line(word_reader &reader)
{
    while (reader.pos < reader.end && *reader.pos != '\n')
        reader.pos++;
    if (reader.pos < reader.end)
        next_line(reader);
}

static void skip_blanks(word_reader &reader)
{
    while (reader.pos < reader.end) {
        if (is_blank(*reader.pos)) {
            reader.pos++;
        } else if (*reader.pos == '\\' && reader.end - reader.pos > 1 && reader.pos[1] == '\n') {
            reader.pos++;
            next_line(reader);
        } else {
            return;
        }
    }
}

// Moves to the end of the word; null, or why it is no word.
static const char *find_word_end(word_reader &reader)
{
    char quote = 0;
    for (; reader.pos < reader.end; reader.pos++) {
        char c = *reader.pos;
        if (!quote && (is_blank(c) || c == '\n'))
            return nullptr;
        if (c == '\\' && quote != '\'') {
            if (++reader.pos == reader.end)
                return "unterminated escape";
            c = *reader.pos;
        } else if (c == quote) {
            quote = 0;
        } else if (!quote && (c == '\'' || c == '"')) {
            quote = c;
        }
        if (c == 0)
            return "invalid character";
        if (c == '\n') {
            reader.line++;
            reader.line_start = reader.pos + 1;
        }
    }
    return quote ? "unterminated quote" : nullptr;
}

static std::string_view unquote(char *start, const char *end)
{
    char quote = 0;
    char *out = start;
    for (const char *in = start; in < end; in++) {
        if (*in == '\\' && quote != '\'') {
            in++;
            if (quote || *in != '\n')
                *out++ = *in;
        } else if (*in == quote) {
            quote = 0;
        } else if (!quote && (*in == '\'' || *in == '"')) {
            quote = *in;
        } else {
            *out++ = *in;
        }
    }
    return {start, static_cast<size_t>(out - start)};
}

word_result next_word(word_reader &reader, uci_word &word, const char *&reason)
{
    skip_blanks(reader);
    if (reader.pos < reader.end && *reader.pos == '#')
        while (reader.pos < reader.end && *reader.pos != '\n')
            reader.pos++;
    if (reader.pos == reader.end)
        return word_result::end_of_text;
    if (*reader.pos == '\n') {
        next_line(reader);
        return word_result::end_of_line;
    }
    char *start = reader.pos;
    word = {{}, reader.line, static_cast<size_t>(start - reader.line_start)};
    word_reader begin = reader;
    reason = find_word_end(reader);
    if (reason) {
        reader = begin;
        return word_result::failed;
    }
    word.text = unquote(start, reader.pos);
    return word_result::word;
}
