// Lines of the pending file: each is one change of the package, applied in their order.

#include "internal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

int change_apply(uci_loaded_package &p, const uci_change &change)
{
    uci_section *s = section_find(p, change.section);
    if (change.kind == change_kind::add_section && s) // the line was written by somebody who did not see that section
        return section_set_type(*s, change.value) && section_make_anonymous(*s) ? UCI_OK : UCI_ERR_MEM;
    if (change.kind == change_kind::add_section)
        return section_create(p, change.value, change.section, true) ? UCI_OK : UCI_ERR_MEM;

    bool of_section = change.option.empty();
    if (change.kind == change_kind::set && of_section && !s)
        return section_create(p, change.value, change.section, false) ? UCI_OK : UCI_ERR_MEM;
    if (!s)
        return UCI_ERR_NOTFOUND;
    uci_option *o = of_section ? nullptr : option_find(p, *s, change.option);

    switch (change.kind) {
    case change_kind::set:
        if (of_section)
            return section_set_type(*s, change.value) ? UCI_OK : UCI_ERR_MEM;
        return option_set(p, *s, change.option, change.value) ? UCI_OK : UCI_ERR_MEM;
    case change_kind::add_value:
        return option_add_value(p, *s, change.option, change.value) ? UCI_OK : UCI_ERR_MEM;
    case change_kind::reorder:
        section_reorder(p, *s, strtoul(change.value.data(), nullptr, 10));
        return UCI_OK;
    case change_kind::remove:
        if (of_section)
            section_remove(p, s);
        else if (o)
            option_remove(p, o);
        return of_section || o ? UCI_OK : UCI_ERR_NOTFOUND;
    case change_kind::remove_value:
        if (o)
            option_remove_value(p, o, change.value);
        return o ? UCI_OK : UCI_ERR_NOTFOUND;
    case change_kind::rename:
        if (of_section ? section_find(p, change.value) != nullptr : option_find(p, *s, change.value) != nullptr)
            return UCI_ERR_DUPLICATE;
        if (of_section)
            return section_rename(p, *s, change.value) ? UCI_OK : UCI_ERR_MEM;
        if (!o)
            return UCI_ERR_NOTFOUND;
        return option_rename(p, o, change.value) ? UCI_OK : UCI_ERR_MEM;
    case change_kind::add_section:
        break;
    }
    return UCI_ERR_INVAL;
}

void change_write(uci_text &out, std::string_view package, const uci_change &change)
{
    if (change.kind != change_kind::set) {
        char prefix = static_cast<char>(change.kind);
        text_append(out, {&prefix, 1});
    }
    text_append(out, package);
    text_append(out, ".");
    text_append(out, change.section);
    if (!change.option.empty()) {
        text_append(out, ".");
        text_append(out, change.option);
    }
    if (change.kind != change_kind::remove) {
        text_append(out, "=");
        text_append_quoted(out, change.value);
    }
    text_append(out, "\n");
}

static std::string_view take_until(std::string_view &text, char separator)
{
    size_t end = text.find(separator);
    std::string_view taken = slice(text, 0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return taken;
}

static bool is_number(std::string_view text)
{
    for (char c : text)
        if (c < '0' || c > '9')
            return false;
    return !text.empty() && text.size() < 10;
}

static bool is_valid_change(const uci_change &change, bool has_option, bool has_value)
{
    if (!valid_name(change.section) || (has_option && !valid_name(change.option)))
        return false;
    switch (change.kind) {
    case change_kind::set:
        return has_value && (has_option || valid_type(change.value));
    case change_kind::add_section:
        return has_value && !has_option && valid_type(change.value);
    case change_kind::add_value:
    case change_kind::remove_value:
        return has_value && has_option;
    case change_kind::rename:
        return has_value && valid_name(change.value);
    case change_kind::reorder:
        return !has_option && is_number(change.value);
    case change_kind::remove:
        return true;
    }
    return false;
}

static bool parse_change(std::string_view package, std::string_view text, uci_change &change)
{
    change.kind = change_kind::set;
    for (change_kind kind : {change_kind::remove, change_kind::add_value, change_kind::remove_value,
                             change_kind::add_section, change_kind::rename, change_kind::reorder})
        if (!text.empty() && text[0] == static_cast<char>(kind))
            change.kind = kind;
    if (change.kind != change_kind::set)
        text.remove_prefix(1);

    size_t value_at = text.find('=');
    bool has_value = value_at != std::string_view::npos;
    std::string_view names = slice(text, 0, value_at);
    change.value = has_value ? slice(text, value_at + 1) : std::string_view{};
    if (take_until(names, '.') != package)
        return false;
    bool has_option = names.find('.') != std::string_view::npos;
    change.section = take_until(names, '.');
    change.option = names;
    if (change.kind == change_kind::set && has_value && change.value.empty()) // means as much as none
        change.kind = change_kind::remove;
    return is_valid_change(change, has_option, has_value);
}

void pending_parse(std::string_view package, char *buffer, size_t size, change_handler handle, void *arg)
{
    word_reader reader = {buffer, buffer + size, buffer, 1};
    for (;;) {
        uci_word word;
        uci_word rest;
        const char *reason = nullptr;
        word_result result = next_word(reader, word, reason);
        if (result == word_result::end_of_text)
            return;
        if (result == word_result::end_of_line)
            continue;
        uci_change change;
        if (result == word_result::word) {
            result = next_word(reader, rest, reason);
            bool alone = result == word_result::end_of_line || result == word_result::end_of_text;
            if (alone && parse_change(package, word.text, change))
                handle(arg, change);
        }
        if (result == word_result::failed || result == word_result::word)
            skip_line(reader);
    }
}

struct apply_state {
    uci_loaded_package *p;
    bool any;
    bool out_of_memory;
};

static void apply_one(void *arg, const uci_change &change)
{
    auto *state = static_cast<apply_state *>(arg);
    state->any = true;
    if (change_apply(*state->p, change) == UCI_ERR_MEM)
        state->out_of_memory = true;
}

int pending_apply(uci_loaded_package &p, char *buffer, size_t size, bool &any)
{
    apply_state state = {&p, any, false};
    pending_parse(p.pub.e.name, buffer, size, apply_one, &state);
    any = state.any;
    return state.out_of_memory ? UCI_ERR_MEM : UCI_OK;
}

// A section that this context added, under both its names.
struct added_section {
    uci_section *s; // null: removed again
    anonymous_name from;
    anonymous_name to;
};

struct rebase_state {
    uci_loaded_package *own;
    const uci_loaded_package *base;
    unsigned number;
    bool moved;
    uci_text added; // of added_section
    uci_text lines;
};

static added_section added_at(const uci_text &added, size_t offset)
{
    added_section one;
    memcpy(&one, added.data + offset, sizeof one);
    return one;
}

static void rebase_one(void *arg, const uci_change &change)
{
    auto *state = static_cast<rebase_state *>(arg);
    if (change.kind == change_kind::add_section && change.section.size() < sizeof(anonymous_name)) {
        added_section one = {section_find(*state->own, change.section), {}, {}};
        memcpy(one.from, change.section.data(), change.section.size());
        make_anonymous_name(*state->base, state->number, one.to);
        state->moved = state->moved || strcmp(one.from, one.to) != 0;
        text_append(state->added, {reinterpret_cast<const char *>(&one), sizeof one});
    }
    uci_change moved = change;
    added_section one;
    for (size_t at = 0; at < state->added.size; at += sizeof one) {
        one = added_at(state->added, at);
        if (change.section == one.from) {
            moved.section = one.to;
            break;
        }
    }
    change_write(state->lines, state->own->pub.e.name, moved);
}

// All old names go before the first new one comes: a section's new name may be another's old one.
static int rename_added(const rebase_state &state)
{
    for (size_t at = 0; at < state.added.size; at += sizeof(added_section))
        if (uci_section *s = added_at(state.added, at).s)
            section_unname(*state.own, *s);
    for (size_t at = 0; at < state.added.size; at += sizeof(added_section)) {
        added_section one = added_at(state.added, at);
        if (one.s && !section_name(*state.own, *one.s, one.to))
            return UCI_ERR_MEM;
    }
    return UCI_OK;
}

int changes_rebase(uci_loaded_package &own, const uci_loaded_package &base)
{
    if (own.added == 0)
        return UCI_OK;
    rebase_state state = {&own, &base, next_anonymous_number(base), false, {}, {}};
    uci_text copy = {};
    text_append(copy, {own.changes.data, own.changes.size});
    if (!copy.out_of_memory)
        pending_parse(own.pub.e.name, copy.data, copy.size, rebase_one, &state);
    bool complete = !copy.out_of_memory && !state.added.out_of_memory && !state.lines.out_of_memory;
    int err = complete ? UCI_OK : UCI_ERR_MEM;
    if (complete && state.moved) {
        err = rename_added(state);
        uci_text before = own.changes;
        own.changes = state.lines;
        state.lines = before;
    }
    text_free(copy);
    text_free(state.added);
    text_free(state.lines);
    return err;
}

// All changes of a pending file, and a table of the options that a later change sets anew.
struct change_list {
    uci_change *changes;
    size_t count;
    size_t capacity;
    bool unfit; // no memory, or a rename, after which a name means something else
};

static void collect_one(void *arg, const uci_change &change)
{
    auto *list = static_cast<change_list *>(arg);
    if (list->unfit || change.kind == change_kind::rename) {
        list->unfit = true;
        return;
    }
    if (list->count == list->capacity) {
        size_t capacity = list->capacity ? list->capacity * 2 : 64;
        auto *grown = static_cast<uci_change *>(realloc(list->changes, capacity * sizeof *list->changes));
        if (!grown) {
            list->unfit = true;
            return;
        }
        list->changes = grown;
        list->capacity = capacity;
    }
    list->changes[list->count++] = change;
}

// Finds the option's slot in the table, which is never full.
static const uci_change **find_slot(const uci_change **table, size_t capacity, const uci_change &change)
{
    uint32_t hash = 2166136261u;
    for (std::string_view part : {change.section, change.option})
        for (char c : part)
            hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    size_t at = (hash ^ (hash >> 15)) & (capacity - 1);
    while (table[at] && (table[at]->section != change.section || table[at]->option != change.option))
        at = (at + 1) & (capacity - 1);
    return &table[at];
}

// Marks what a later change makes void by taking its section away.
static bool mark_void(change_list &list)
{
    size_t capacity = 64;
    while (capacity < list.count * 2)
        capacity *= 2;
    auto **table = static_cast<const uci_change **>(calloc(capacity, sizeof(uci_change *)));
    if (!table)
        return false;
    for (size_t i = list.count; i-- > 0;) {
        uci_change &change = list.changes[i];
        if (change.option.empty())
            continue;
        const uci_change **slot = find_slot(table, capacity, change);
        if (*slot)
            change.section = {};
        else if (change.kind == change_kind::set || change.kind == change_kind::remove)
            *slot = &change;
    }
    free(table);
    return true;
}

void pending_compact(std::string_view package, std::string_view lines, uci_text &out)
{
    uci_text copy = {};
    text_append(copy, lines);
    change_list list = {};
    if (!copy.out_of_memory)
        pending_parse(package, copy.data, copy.size, collect_one, &list);
    if (copy.out_of_memory || list.unfit || !mark_void(list)) {
        text_append(out, lines);
    } else {
        for (size_t i = 0; i < list.count; i++)
            if (!list.changes[i].section.empty())
                change_write(out, package, list.changes[i]);
    }
    free(list.changes);
    text_free(copy);
}
