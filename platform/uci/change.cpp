// Lookups and changes of loaded packages.

#include "internal.h"

#include <cstring>

static int finish(uci_context *ctx, int err)
{
    ctx->err = err;
    return err;
}

static void set_flag(uci_ptr &ptr, int flag)
{
    ptr.flags = static_cast<decltype(ptr.flags)>(ptr.flags | flag);
}

// Cuts "package.section.option=value" up; null when there is nothing behind the separator.
static char *cut(char *text, char separator)
{
    char *at = text ? strchr(text, separator) : nullptr;
    if (at)
        *at++ = 0;
    return at;
}

static void split(uci_ptr &ptr, char *str)
{
    ptr = {};
    ptr.value = cut(str, '=');
    char *section = cut(str, '.');
    char *option = cut(section, '.');
    ptr.package = str;
    ptr.section = section;
    ptr.option = option;
}

struct section_index {
    std::string_view type; // empty: sections of any type
    long number;           // negative: from the end
};

// Numbers beyond any package's size are cut to one that is still beyond it.
static bool parse_index(std::string_view text, section_index &index)
{
    constexpr long beyond = 100000000;
    size_t open = text.find('[');
    if (open == std::string_view::npos || text.back() != ']')
        return false;
    index.type = slice(text, 1, open - 1);
    std::string_view digits = slice(text, open + 1, text.size() - open - 2);
    bool negative = !digits.empty() && digits[0] == '-';
    if (negative)
        digits.remove_prefix(1);
    if (digits.empty())
        return false;
    index.number = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return false;
        if (index.number < beyond)
            index.number = index.number * 10 + (c - '0');
    }
    if (negative)
        index.number = -index.number;
    return true;
}

static uci_section *find_nth(const uci_package &p, const section_index &index)
{
    long left = index.number < 0 ? -index.number - 1 : index.number;
    uci_list *at = index.number < 0 ? p.sections.prev : p.sections.next;
    for (; at != &p.sections; at = index.number < 0 ? at->prev : at->next) {
        uci_section *s = uci_to_section(uci_list_to_element(at));
        if ((index.type.empty() || index.type == s->type) && left-- == 0)
            return s;
    }
    return nullptr;
}

static int check_names(const uci_ptr &ptr, bool extended, section_index &index)
{
    if (!ptr.package || !valid_package_name(ptr.package) || (ptr.option && !ptr.section))
        return UCI_ERR_INVAL;
    if (ptr.section && ptr.section[0] == '@') {
        if (!extended || !parse_index(ptr.section, index))
            return UCI_ERR_INVAL;
    } else if (ptr.section && !valid_name(ptr.section)) {
        return UCI_ERR_INVAL;
    }
    return ptr.option && !valid_name(ptr.option) ? UCI_ERR_INVAL : UCI_OK;
}

static void find_parts(uci_ptr &ptr, const section_index &index)
{
    const uci_loaded_package &p = *loaded(ptr.p);
    ptr.last = &ptr.p->e;
    if (ptr.section && ptr.section[0] == '@') {
        set_flag(ptr, uci_ptr::UCI_LOOKUP_EXTENDED);
        ptr.s = find_nth(*ptr.p, index);
        if (ptr.s)
            ptr.section = ptr.s->e.name;
    } else if (ptr.section) {
        ptr.s = section_find(p, ptr.section);
    }
    if (ptr.s)
        ptr.last = &ptr.s->e;
    if (ptr.s && ptr.option)
        ptr.o = option_find(p, *ptr.s, ptr.option);
    if (ptr.o)
        ptr.last = &ptr.o->e;
    if ((!ptr.section || ptr.s) && (!ptr.option || ptr.o))
        set_flag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
}

int uci_lookup_ptr(uci_context *ctx, uci_ptr *ptr, char *str, bool extended)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!ptr)
        return finish(ctx, UCI_ERR_INVAL);
    if (str)
        split(*ptr, str);
    section_index index = {};
    int err = check_names(*ptr, extended, index);
    if (err != UCI_OK)
        return finish(ctx, err);
    ptr->target = ptr->option ? UCI_TYPE_OPTION : ptr->section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    ptr->flags = {};
    ptr->p = nullptr;
    ptr->s = nullptr;
    ptr->o = nullptr;
    ptr->last = nullptr;
    err = uci_load(ctx, ptr->package, &ptr->p);
    if (err != UCI_OK)
        return err;
    set_flag(*ptr, uci_ptr::UCI_LOOKUP_DONE);
    find_parts(*ptr, index);
    return finish(ctx, UCI_OK);
}

// Applies a change and notes it for the pending file: both or neither.
static int record(uci_context *ctx, uci_package *p, const uci_change &change)
{
    uci_text &changes = loaded(p)->changes;
    size_t before = changes.size;
    change_write(changes, p->e.name, change);
    int err = changes.out_of_memory ? UCI_ERR_MEM : change_apply(*loaded(p), change);
    if (err == UCI_OK) {
        p->has_delta = true;
    } else {
        changes.size = before;
        changes.out_of_memory = false;
    }
    return finish(ctx, err);
}

// Takes the names from what was found, else from what was asked for.
static int change_of(uci_context *ctx, const uci_ptr *ptr, change_kind kind, uci_change &change)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!ptr || !ptr->p)
        return finish(ctx, UCI_ERR_INVAL);
    const char *section = ptr->s ? ptr->s->e.name : ptr->section;
    const char *option = ptr->o ? ptr->o->e.name : ptr->option;
    if (!section || !valid_name(section) || (option && !valid_name(option)))
        return finish(ctx, UCI_ERR_INVAL);
    change = {kind, section, option ? option : std::string_view{}, ptr->value ? ptr->value : std::string_view{}};
    return UCI_OK;
}

static void find_again(uci_ptr *ptr, const uci_change &change)
{
    const uci_loaded_package &p = *loaded(ptr->p);
    ptr->s = section_find(p, change.section);
    ptr->o = ptr->s && !change.option.empty() ? option_find(p, *ptr->s, change.option) : nullptr;
    ptr->last = ptr->o ? &ptr->o->e : ptr->s ? &ptr->s->e : &ptr->p->e;
}

int uci_set(uci_context *ctx, uci_ptr *ptr)
{
    uci_change change;
    int err = change_of(ctx, ptr, change_kind::set, change);
    if (err != UCI_OK)
        return err;
    bool of_option = !change.option.empty();
    if (ptr->value && !*ptr->value) // an empty value means as much as none
        return (of_option ? ptr->o != nullptr : ptr->s != nullptr) ? uci_delete(ctx, ptr) : finish(ctx, UCI_OK);
    if (!ptr->value || (of_option && !section_find(*loaded(ptr->p), change.section)) ||
        (!of_option && !valid_type(change.value)))
        return finish(ctx, UCI_ERR_INVAL);
    err = record(ctx, ptr->p, change);
    if (err == UCI_OK)
        find_again(ptr, change);
    return err;
}

int uci_add_list(uci_context *ctx, uci_ptr *ptr)
{
    uci_change change;
    int err = change_of(ctx, ptr, change_kind::add_value, change);
    if (err != UCI_OK)
        return err;
    if (!ptr->value || change.option.empty() || !section_find(*loaded(ptr->p), change.section))
        return finish(ctx, UCI_ERR_INVAL);
    err = record(ctx, ptr->p, change);
    if (err == UCI_OK)
        find_again(ptr, change);
    return err;
}

int uci_delete(uci_context *ctx, uci_ptr *ptr)
{
    if (ctx && ptr && ptr->p && ptr->section && ptr->section[0] == '@' && !ptr->s)
        return finish(ctx, UCI_ERR_NOTFOUND);
    uci_change change;
    int err = change_of(ctx, ptr, change_kind::remove, change);
    if (err != UCI_OK)
        return err;
    // The change's names may belong to what is freed.
    bool of_option = !change.option.empty();
    err = record(ctx, ptr->p, change);
    if (err != UCI_OK)
        return err;
    ptr->o = nullptr;
    if (!of_option)
        ptr->s = nullptr;
    ptr->last = ptr->s ? &ptr->s->e : &ptr->p->e;
    return UCI_OK;
}

int uci_add_section(uci_context *ctx, uci_package *p, const char *type, uci_section **res)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!p || !type || !valid_type(type) || !res)
        return finish(ctx, UCI_ERR_INVAL);
    anonymous_name name;
    unsigned number = next_anonymous_number(*loaded(p));
    make_anonymous_name(*loaded(p), number, name);
    int err = record(ctx, p, {change_kind::add_section, name, {}, type});
    if (err == UCI_OK) {
        loaded(p)->added++;
        *res = section_find(*loaded(p), name);
    }
    return err;
}
