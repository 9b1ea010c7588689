// The grammar of a package's file: `config`, `option` and `list`, one a line.

#include "internal.h"

constexpr size_t statement_words = 3;

struct uci_statement {
    uci_word words[statement_words];
    size_t count;
};

static int refuse(uci_loaded_package &p, const uci_word &at, const char *reason)
{
    p.pub.ctx->parse_reason = reason;
    p.pub.ctx->parse_line = at.line;
    p.pub.ctx->parse_byte = at.byte;
    return UCI_ERR_PARSE;
}

// Reads one line's words; `more` tells whether the text goes on.
static int read_statement(uci_loaded_package &p, word_reader &reader, uci_statement &statement, bool &more)
{
    statement.count = 0;
    for (;;) {
        uci_word word;
        const char *reason = nullptr;
        switch (next_word(reader, word, reason)) {
        case word_result::end_of_line:
            more = true;
            return UCI_OK;
        case word_result::end_of_text:
            more = false;
            return UCI_OK;
        case word_result::failed:
            return refuse(p, word, reason);
        case word_result::word:
            if (statement.count == statement_words)
                return refuse(p, word, "too many arguments");
            statement.words[statement.count++] = word;
        }
    }
}

static int parse_section(uci_loaded_package &p, const uci_statement &statement, uci_section *&current)
{
    if (statement.count < 2)
        return refuse(p, statement.words[0], "insufficient arguments");
    const uci_word &type = statement.words[1];
    std::string_view name = statement.count == 3 ? statement.words[2].text : std::string_view{};
    if (!valid_type(type.text))
        return refuse(p, type, "invalid character in type field");
    if (!name.empty() && !valid_name(name))
        return refuse(p, statement.words[2], "invalid character in name field");

    current = name.empty() ? nullptr : section_find(p, name);
    if (current)
        return section_set_type(*current, type.text) ? UCI_OK : UCI_ERR_MEM;
    current = section_create(p, type.text, name, name.empty());
    return current ? UCI_OK : UCI_ERR_MEM;
}

static int parse_option(uci_loaded_package &p, const uci_statement &statement, uci_section *current, bool list)
{
    if (!current)
        return refuse(p, statement.words[0], "option/list command found before the first section");
    if (statement.count < 2)
        return refuse(p, statement.words[0], "insufficient arguments");
    const uci_word &name = statement.words[1];
    if (!valid_name(name.text))
        return refuse(p, name, "invalid character in name field");
    std::string_view value = statement.count == 3 ? statement.words[2].text : std::string_view{};
    if (value.empty() && !list) // an empty value means as much as none
        return UCI_OK;
    uci_option *o = list ? option_add_value(p, *current, name.text, value) : option_set(p, *current, name.text, value);
    return o ? UCI_OK : UCI_ERR_MEM;
}

int config_parse(uci_loaded_package &p, char *buffer, size_t size)
{
    word_reader reader = {buffer, buffer + size, buffer, 1};
    uci_section *current = nullptr;
    bool more = true;
    while (more) {
        uci_statement statement;
        int err = read_statement(p, reader, statement, more);
        if (err != UCI_OK)
            return err;
        if (statement.count == 0)
            continue;
        std::string_view command = statement.words[0].text;
        if (command == "config")
            err = parse_section(p, statement, current);
        else if (command == "option" || command == "list")
            err = parse_option(p, statement, current, command == "list");
        else
            err = refuse(p, statement.words[0], "invalid command");
        if (err != UCI_OK)
            return err;
    }
    return number_anonymous_sections(p) ? UCI_OK : UCI_ERR_MEM;
}

static void write_value(uci_text &out, std::string_view command, const char *name, const char *value)
{
    text_append(out, command);
    text_append(out, name);
    text_append(out, " ");
    text_append_quoted(out, value);
    text_append(out, "\n");
}

static void write_option(uci_text &out, uci_option *o)
{
    if (o->type == UCI_TYPE_STRING) {
        write_value(out, "\toption ", o->e.name, o->v.string);
        return;
    }
    uci_element *item;
    uci_foreach_element(&o->v.list, item) write_value(out, "\tlist ", o->e.name, item->name);
}

void config_write(const uci_loaded_package &p, uci_text &out)
{
    uci_element *e;
    uci_foreach_element(&p.pub.sections, e)
    {
        uci_section *s = uci_to_section(e);
        text_append(out, "\nconfig ");
        if (valid_name(s->type))
            text_append(out, s->type);
        else
            text_append_quoted(out, s->type);
        if (!s->anonymous) {
            text_append(out, " ");
            text_append_quoted(out, e->name);
        }
        text_append(out, "\n");
        uci_element *option;
        uci_foreach_element(&s->options, option) write_option(out, uci_to_option(option));
    }
    text_append(out, "\n");
}
