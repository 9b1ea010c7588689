// Packages in memory. A name is held in the same allocation as its element until it is renamed.

#include "internal.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

constexpr size_t anonymous_name_size = sizeof(anonymous_name);

static uci_element removed_slot;

static void list_init(uci_list &list)
{
    list.next = list.prev = &list;
}

static void list_insert(uci_list &before, uci_list &entry)
{
    entry.next = &before;
    entry.prev = before.prev;
    before.prev->next = &entry;
    before.prev = &entry;
}

static void list_remove(uci_list &entry)
{
    entry.prev->next = entry.next;
    entry.next->prev = entry.prev;
}

static char *copy_text(std::string_view text)
{
    auto *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy) {
        if (!text.empty())
            memcpy(copy, text.data(), text.size());
        copy[text.size()] = 0;
    }
    return copy;
}

template<typename T> static T *element_create(uci_type type, std::string_view name, size_t least_name_size)
{
    size_t name_size = name.size() + 1 > least_name_size ? name.size() + 1 : least_name_size;
    auto *made = static_cast<T *>(calloc(1, sizeof(T) + name_size));
    if (!made)
        return nullptr;
    auto *e = reinterpret_cast<uci_element *>(made);
    e->type = type;
    e->name = reinterpret_cast<char *>(made + 1);
    if (!name.empty())
        memcpy(e->name, name.data(), name.size());
    return made;
}

template<typename T> static void element_free(T *element)
{
    auto *e = reinterpret_cast<uci_element *>(element);
    if (e->name != reinterpret_cast<char *>(element + 1))
        free(e->name);
    free(element);
}

template<typename T> static void replace_name(T *element, char *name)
{
    auto *e = reinterpret_cast<uci_element *>(element);
    if (e->name != reinterpret_cast<char *>(element + 1))
        free(e->name);
    e->name = name;
}

static const void *parent_of(const uci_element *e)
{
    if (e->type == UCI_TYPE_SECTION)
        return reinterpret_cast<const uci_section *>(e)->package;
    return reinterpret_cast<const uci_option *>(e)->section;
}

static size_t hash_name(const void *parent, std::string_view name)
{
    uint32_t hash = 2166136261u ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(parent) >> 4);
    for (char c : name)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    return hash ^ (hash >> 15);
}

static uci_element **index_slot(const name_index &index, const void *parent, std::string_view name)
{
    if (index.capacity == 0)
        return nullptr;
    size_t mask = index.capacity - 1;
    for (size_t at = hash_name(parent, name) & mask; index.slots[at]; at = (at + 1) & mask) {
        uci_element *e = index.slots[at];
        if (e != &removed_slot && parent_of(e) == parent && name == e->name)
            return &index.slots[at];
    }
    return nullptr;
}

static void index_put(name_index &index, uci_element *e)
{
    size_t mask = index.capacity - 1;
    size_t at = hash_name(parent_of(e), e->name) & mask;
    while (index.slots[at])
        at = (at + 1) & mask;
    index.slots[at] = e;
    index.used++;
}

static bool index_reserve(name_index &index)
{
    if ((index.used + 1) * 4 <= index.capacity * 3)
        return true;
    name_index grown = {nullptr, index.capacity ? index.capacity * 2 : 64, 0};
    grown.slots = static_cast<uci_element **>(calloc(grown.capacity, sizeof *grown.slots));
    if (!grown.slots)
        return false;
    for (size_t i = 0; i < index.capacity; i++)
        if (index.slots[i] && index.slots[i] != &removed_slot)
            index_put(grown, index.slots[i]);
    free(index.slots);
    index = grown;
    return true;
}

// Of two elements with one name the later one is found.
static bool index_insert(name_index &index, uci_element *e)
{
    if (!index_reserve(index))
        return false;
    if (uci_element **slot = index_slot(index, parent_of(e), e->name))
        *slot = e;
    else
        index_put(index, e);
    return true;
}

static void index_remove(name_index &index, uci_element *e)
{
    uci_element **slot = index_slot(index, parent_of(e), e->name);
    if (slot && *slot == e)
        *slot = &removed_slot;
}

static void free_items(uci_option *o)
{
    uci_element *item;
    uci_element *next;
    uci_foreach_element_safe(&o->v.list, next, item) element_free(item);
}

static void option_free(uci_option *o)
{
    if (o->type == UCI_TYPE_LIST)
        free_items(o);
    else
        free(o->v.string);
    element_free(o);
}

static void section_free(uci_section *s)
{
    uci_element *e;
    uci_element *next;
    uci_foreach_element_safe(&s->options, next, e) option_free(uci_to_option(e));
    free(s->type);
    element_free(s);
}

uci_loaded_package *package_create(uci_context *ctx, std::string_view name, const char *path)
{
    auto *p = element_create<uci_loaded_package>(UCI_TYPE_PACKAGE, name, 0);
    if (!p)
        return nullptr;
    p->pub.path = copy_text(path);
    if (!p->pub.path) {
        element_free(p);
        return nullptr;
    }
    list_init(p->pub.e.list);
    list_init(p->pub.sections);
    p->pub.ctx = ctx;
    return p;
}

void package_free(uci_loaded_package *p)
{
    uci_element *e;
    uci_element *next;
    uci_foreach_element_safe(&p->pub.sections, next, e) section_free(uci_to_section(e));
    free(p->pub.path);
    free(p->index.slots);
    text_free(p->changes);
    element_free(p);
}

uci_section *section_find(const uci_loaded_package &p, std::string_view name)
{
    uci_element **slot = index_slot(p.index, &p.pub, name);
    return slot ? uci_to_section(*slot) : nullptr;
}

uci_section *section_create(uci_loaded_package &p, std::string_view type, std::string_view name, bool anonymous)
{
    auto *s = element_create<uci_section>(UCI_TYPE_SECTION, name, anonymous ? anonymous_name_size : 0);
    if (!s)
        return nullptr;
    list_init(s->options);
    s->package = &p.pub;
    s->anonymous = anonymous;
    s->type = copy_text(type);
    if (!s->type || (!name.empty() && !index_insert(p.index, &s->e))) {
        section_free(s);
        return nullptr;
    }
    list_insert(p.pub.sections, s->e.list);
    return s;
}

bool section_set_type(uci_section &s, std::string_view type)
{
    char *copy = copy_text(type);
    if (!copy)
        return false;
    free(s.type);
    s.type = copy;
    return true;
}

bool section_rename(uci_loaded_package &p, uci_section &s, std::string_view name)
{
    char *copy = copy_text(name);
    if (!copy || !index_reserve(p.index)) {
        free(copy);
        return false;
    }
    index_remove(p.index, &s.e);
    replace_name(&s, copy);
    s.anonymous = false;
    return index_insert(p.index, &s.e);
}

bool section_make_anonymous(uci_section &s)
{
    if (s.anonymous)
        return true;
    size_t size = strlen(s.e.name) + 1;
    auto *roomy = static_cast<char *>(malloc(size > anonymous_name_size ? size : anonymous_name_size));
    if (!roomy)
        return false;
    memcpy(roomy, s.e.name, size);
    replace_name(&s, roomy);
    s.anonymous = true;
    return true;
}

void section_reorder(uci_loaded_package &p, uci_section &s, size_t position)
{
    list_remove(s.e.list);
    uci_list *before = p.pub.sections.next;
    while (position-- > 0 && before != &p.pub.sections)
        before = before->next;
    list_insert(*before, s.e.list);
}

void section_remove(uci_loaded_package &p, uci_section *s)
{
    uci_element *e;
    uci_foreach_element(&s->options, e) index_remove(p.index, e);
    index_remove(p.index, &s->e);
    list_remove(s->e.list);
    section_free(s);
}

void make_anonymous_name(const uci_loaded_package &p, unsigned &number, anonymous_name &name)
{
    do
        (void)snprintf(name, sizeof name, "cfg%06x", number++ & 0xffffff);
    while (section_find(p, name));
}

unsigned next_anonymous_number(const uci_loaded_package &p)
{
    unsigned next = 0;
    uci_element *e;
    uci_foreach_element(&p.pub.sections, e)
    {
        unsigned number = 0;
        if (uci_to_section(e)->anonymous && sscanf(e->name, "cfg%6x", &number) == 1 && number >= next)
            next = number + 1;
    }
    return next;
}

void section_unname(uci_loaded_package &p, uci_section &s)
{
    if (s.e.name[0])
        index_remove(p.index, &s.e);
    s.e.name[0] = 0;
}

bool section_name(uci_loaded_package &p, uci_section &s, const anonymous_name &name)
{
    memcpy(s.e.name, name, sizeof name);
    return index_insert(p.index, &s.e);
}

bool number_anonymous_sections(uci_loaded_package &p)
{
    uci_element *e;
    uci_foreach_element(&p.pub.sections, e)
    {
        if (uci_to_section(e)->anonymous)
            section_unname(p, *uci_to_section(e));
    }
    unsigned number = 0;
    uci_foreach_element(&p.pub.sections, e)
    {
        if (!uci_to_section(e)->anonymous)
            continue;
        anonymous_name name;
        make_anonymous_name(p, number, name);
        if (!section_name(p, *uci_to_section(e), name))
            return false;
    }
    return true;
}

uci_option *option_find(const uci_loaded_package &p, const uci_section &s, std::string_view name)
{
    uci_element **slot = index_slot(p.index, &s, name);
    return slot ? uci_to_option(*slot) : nullptr;
}

static uci_option *option_create(uci_loaded_package &p, uci_section &s, std::string_view name)
{
    auto *o = element_create<uci_option>(UCI_TYPE_OPTION, name, 0);
    if (!o)
        return nullptr;
    o->section = &s;
    if (!index_insert(p.index, &o->e)) {
        element_free(o);
        return nullptr;
    }
    list_insert(s.options, o->e.list);
    return o;
}

uci_option *option_set(uci_loaded_package &p, uci_section &s, std::string_view name, std::string_view value)
{
    char *copy = copy_text(value);
    if (!copy)
        return nullptr;
    uci_option *o = option_find(p, s, name);
    if (!o)
        o = option_create(p, s, name);
    if (!o) {
        free(copy);
        return nullptr;
    }
    if (o->type == UCI_TYPE_LIST)
        free_items(o);
    else
        free(o->v.string);
    o->type = UCI_TYPE_STRING;
    o->v.string = copy;
    return o;
}

uci_option *option_add_value(uci_loaded_package &p, uci_section &s, std::string_view name, std::string_view value)
{
    auto *item = element_create<uci_element>(UCI_TYPE_ITEM, value, 0);
    if (!item)
        return nullptr;
    uci_option *o = option_find(p, s, name);
    uci_element *first = nullptr;
    if (o && o->type == UCI_TYPE_STRING)
        first = element_create<uci_element>(UCI_TYPE_ITEM, o->v.string, 0);
    bool missing = !o;
    if (missing)
        o = option_create(p, s, name);
    if (!o || (!missing && o->type == UCI_TYPE_STRING && !first)) {
        element_free(item);
        return nullptr;
    }
    if (o->type == UCI_TYPE_STRING) {
        free(o->v.string);
        o->type = UCI_TYPE_LIST;
        list_init(o->v.list);
        if (first)
            list_insert(o->v.list, first->list);
    }
    list_insert(o->v.list, item->list);
    return o;
}

void option_remove_value(uci_loaded_package &p, uci_option *o, std::string_view value)
{
    if (o->type != UCI_TYPE_LIST)
        return;
    uci_element *item;
    uci_element *next;
    uci_foreach_element_safe(&o->v.list, next, item)
    {
        if (value != item->name)
            continue;
        list_remove(item->list);
        element_free(item);
    }
    if (o->v.list.next == &o->v.list)
        option_remove(p, o);
}

bool option_rename(uci_loaded_package &p, uci_option *o, std::string_view name)
{
    char *copy = copy_text(name);
    if (!copy || !index_reserve(p.index)) {
        free(copy);
        return false;
    }
    index_remove(p.index, &o->e);
    replace_name(o, copy);
    return index_insert(p.index, &o->e);
}

void option_remove(uci_loaded_package &p, uci_option *o)
{
    index_remove(p.index, &o->e);
    list_remove(o->e.list);
    option_free(o);
}
