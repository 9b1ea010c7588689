/* Configuration packages of the router: reading, changing and committing them.
 *
 * A package is the file <confdir>/<package>; changes that are saved but not yet committed are lines of
 * <savedir>/<package>. Loading a package applies them.
 *
 * Every function returns one of the UCI_ERR numbers, UCI_OK on success. A context belongs to one thread; contexts of
 * several threads or processes may work on the same package at the same time. Package names consist of letters,
 * digits, '_' and '-', names of sections and options of letters, digits and '_'; anything else is UCI_ERR_INVAL.
 * No call waits longer than 5 s for another process: then it fails with UCI_ERR_IO. Files above 16 MiB are refused
 * with UCI_ERR_IO.
 */
#ifndef UCI_H
#define UCI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>

#define UCI_CONFDIR "/etc/config"
#define UCI_SAVEDIR "/tmp/.uci"

enum {
    UCI_OK = 0,
    UCI_ERR_MEM = 1,
    UCI_ERR_INVAL = 2,
    UCI_ERR_NOTFOUND = 3,
    UCI_ERR_IO = 4,
    UCI_ERR_PARSE = 5,
    UCI_ERR_DUPLICATE = 6,
    UCI_ERR_UNKNOWN = 7
};

enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_PACKAGE = 2,
    UCI_TYPE_SECTION = 3,
    UCI_TYPE_OPTION = 4,
    UCI_TYPE_ITEM = 7
};

enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

struct uci_list {
    struct uci_list *next;
    struct uci_list *prev;
};

struct uci_element {
    struct uci_list list;
    enum uci_type type;
    char *name;
};

struct uci_context {
    struct uci_list root; /* loaded packages */
    int err;              /* result of the last call */
    char *confdir;
    char *savedir;
    const char *parse_reason; /* where and why a file was refused with UCI_ERR_PARSE */
    size_t parse_line;
    size_t parse_byte;
};

struct uci_package {
    struct uci_element e;
    struct uci_list sections;
    struct uci_context *ctx;
    bool has_delta; /* differs from the file: pending lines or changes of this context */
    bool uses_conf2;
    char *path;
};

struct uci_section {
    struct uci_element e;
    struct uci_list options;
    struct uci_package *package;
    bool anonymous;
    char *type;
};

struct uci_option {
    struct uci_element e;
    struct uci_section *section;
    enum uci_option_type type;
    union {
        struct uci_list list; /* of elements whose name is the value */
        char *string;
    } v;
};

struct uci_ptr {
    enum uci_type target;
    enum { UCI_LOOKUP_DONE = (1 << 0), UCI_LOOKUP_COMPLETE = (1 << 1), UCI_LOOKUP_EXTENDED = (1 << 2) } flags;
    struct uci_package *p;
    struct uci_section *s;
    struct uci_option *o;
    struct uci_element *last;
    const char *package;
    const char *section;
    const char *option;
    const char *value;
};

/* A new context with the default folders, or NULL without memory; uci_free_context frees it and all its packages. */
struct uci_context *uci_alloc_context(void);
void uci_free_context(struct uci_context *ctx);

int uci_set_confdir(struct uci_context *ctx, const char *dir);
int uci_set_savedir(struct uci_context *ctx, const char *dir);

/* Loads a package with its pending changes, or gives the one that the context holds already. `package` may be NULL.
 * UCI_ERR_NOTFOUND: there is no such file; UCI_ERR_PARSE: the file is refused, uci_get_errorstr tells the line. */
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);

/* Looks up "package[.section[.option]][=value]", loading the package. `str` is cut up and `ptr` points into it; with
 * a null `str` the names in `ptr` are looked up. `extended` allows "@type[n]" for a section, counted from 0 or, with a
 * negative n, from the end; an empty type counts all sections. UCI_OK tells nothing about the section and the option:
 * UCI_LOOKUP_COMPLETE is set in ptr->flags when every named part exists. */
int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);

/* Sets an option to ptr->value, creating it when its section exists, or the type of a section, creating that. An empty
 * value deletes what is there.
 * UCI_ERR_INVAL: no value, or an option of a section that is not there. */
int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);

/* Appends an anonymous section. Anonymous sections are named by their order: saving gives (*res)->e.name its final
 * value when others have added sections meanwhile, and removing one renames those behind it at the next commit. */
int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type, struct uci_section **res);

/* Appends ptr->value to a list; an option with one value becomes the list's first entry. Errors as uci_set. */
int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);

/* Removes an option, or a section with all its options. UCI_ERR_NOTFOUND: it is not there. */
int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);

/* Appends this context's changes of the package to its pending changes. */
int uci_save(struct uci_context *ctx, struct uci_package *p);

/* Writes the package: the file as it is now, with all pending changes and with those of this context; nothing happens
 * when there are none. With `overwrite` the file becomes what this context holds, whatever was pending. The file is
 * replaced whole or not at all and keeps its mode. *p is replaced: sections and options found before are gone. */
int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);

/* Writes the package as it is in this context, as a commit would write it; with `header` after a line `package <name>`.
 * Errors of the stream are its own to tell. */
int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *p, bool header);

/* The last call's error as text, with "<prefix>: " before it when a prefix is given; the caller frees *dest, which is
 * NULL without memory. uci_perror prints it to standard error. */
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix);
void uci_perror(struct uci_context *ctx, const char *prefix);

#define uci_container_of(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))

#define uci_list_to_element(ptr) uci_container_of(ptr, struct uci_element, list)
#define uci_to_package(ptr) uci_container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) uci_container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr) uci_container_of(ptr, struct uci_option, e)

#define uci_foreach_element(_list, _ptr)                                                                               \
    for ((_ptr) = uci_list_to_element((_list)->next); &(_ptr)->list != (_list);                                        \
         (_ptr) = uci_list_to_element((_ptr)->list.next))

/* _ptr may be taken off the list and freed within the loop. */
#define uci_foreach_element_safe(_list, _tmp, _ptr)                                                                    \
    for ((_ptr) = uci_list_to_element((_list)->next), (_tmp) = uci_list_to_element((_ptr)->list.next);                 \
         &(_ptr)->list != (_list); (_ptr) = (_tmp), (_tmp) = uci_list_to_element((_tmp)->list.next))

#endif
