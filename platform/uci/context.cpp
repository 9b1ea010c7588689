// Contexts, and the roads between a package's files and its form in memory.

#include "internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

static int finish(uci_context *ctx, int err)
{
    ctx->err = err;
    return err;
}

static int replace_text(uci_context *ctx, char *&slot, const char *text)
{
    if (!text || !*text)
        return finish(ctx, UCI_ERR_INVAL);
    char *copy = strdup(text);
    if (!copy)
        return finish(ctx, UCI_ERR_MEM);
    free(slot);
    slot = copy;
    return finish(ctx, UCI_OK);
}

uci_context *uci_alloc_context(void)
{
    auto *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
    if (!ctx)
        return nullptr;
    ctx->root.next = ctx->root.prev = &ctx->root;
    ctx->confdir = strdup(UCI_CONFDIR);
    ctx->savedir = strdup(UCI_SAVEDIR);
    if (ctx->confdir && ctx->savedir)
        return ctx;
    uci_free_context(ctx);
    return nullptr;
}

static void put_package(uci_context *ctx, uci_package *p)
{
    uci_list &entry = p->e.list;
    entry.next = &ctx->root;
    entry.prev = ctx->root.prev;
    ctx->root.prev->next = &entry;
    ctx->root.prev = &entry;
}

static void drop_package(uci_package *p)
{
    p->e.list.prev->next = p->e.list.next;
    p->e.list.next->prev = p->e.list.prev;
    package_free(loaded(p));
}

void uci_free_context(uci_context *ctx)
{
    if (!ctx)
        return;
    uci_element *e;
    uci_element *next;
    uci_foreach_element_safe(&ctx->root, next, e) drop_package(uci_to_package(e));
    free(ctx->confdir);
    free(ctx->savedir);
    free(ctx);
}

int uci_set_confdir(uci_context *ctx, const char *dir)
{
    return ctx ? replace_text(ctx, ctx->confdir, dir) : UCI_ERR_INVAL;
}

int uci_set_savedir(uci_context *ctx, const char *dir)
{
    return ctx ? replace_text(ctx, ctx->savedir, dir) : UCI_ERR_INVAL;
}

// The package's file, then the pending lines; the caller holds the lock.
static int build(uci_context *ctx, std::string_view name, const package_paths &paths, int fd, uci_loaded_package *&out)
{
    uci_text file = {};
    uci_text pending = {};
    uci_loaded_package *p = nullptr;
    int err = file_read(fd, file);
    if (err == UCI_OK)
        err = pending_read(paths.pending, pending);
    if (err == UCI_OK && !pending.out_of_memory)
        p = package_create(ctx, name, paths.config);
    if (err == UCI_OK)
        err = p ? config_parse(*p, file.data, file.size) : UCI_ERR_MEM;
    bool changed = false;
    if (err == UCI_OK)
        err = pending_apply(*p, pending.data, pending.size, changed);
    text_free(file);
    text_free(pending);
    if (err == UCI_OK) {
        p->pub.has_delta = changed;
        out = p;
    } else if (p) {
        package_free(p);
    }
    return err;
}

int uci_load(uci_context *ctx, const char *name, uci_package **package)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!name || !valid_package_name(name))
        return finish(ctx, UCI_ERR_INVAL);
    uci_package *found = nullptr;
    uci_element *e;
    uci_foreach_element(&ctx->root, e)
    {
        if (strcmp(e->name, name) == 0)
            found = uci_to_package(e);
    }
    if (!found) {
        package_paths paths;
        int err = make_paths(*ctx, name, paths);
        locked_file file;
        if (err == UCI_OK)
            err = file_lock(paths.config, false, file);
        if (err != UCI_OK)
            return finish(ctx, err);
        uci_loaded_package *made = nullptr;
        err = build(ctx, name, paths, file.fd, made);
        file_unlock(file.fd);
        if (err != UCI_OK)
            return finish(ctx, err);
        put_package(ctx, &made->pub);
        found = &made->pub;
    }
    if (package)
        *package = found;
    return finish(ctx, UCI_OK);
}

int uci_save(uci_context *ctx, uci_package *p)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!p)
        return finish(ctx, UCI_ERR_INVAL);
    uci_text &changes = loaded(p)->changes;
    if (changes.size == 0)
        return finish(ctx, UCI_OK);
    package_paths paths;
    locked_file file;
    int err = make_paths(*ctx, p->e.name, paths);
    if (err == UCI_OK)
        err = file_lock(paths.config, true, file);
    if (err != UCI_OK)
        return finish(ctx, err);
    uci_loaded_package *base = nullptr;
    if (loaded(p)->added > 0)
        err = build(ctx, p->e.name, paths, file.fd, base);
    if (base) {
        err = changes_rebase(*loaded(p), *base);
        package_free(base);
    }
    if (err == UCI_OK)
        err = pending_append(paths.pending, p->e.name, {changes.data, changes.size});
    file_unlock(file.fd);
    if (err == UCI_OK)
        changes.size = loaded(p)->added = 0;
    return finish(ctx, err);
}

// Puts the package's text in place and empties the pending file. The pending file is opened first: when it cannot be
// emptied, nothing is written.
static int write_locked(uci_loaded_package &p, const package_paths &paths, const locked_file &file)
{
    uci_text content = {};
    config_write(p, content);
    int pending_fd = -1;
    int err = content.out_of_memory ? UCI_ERR_MEM : pending_open(paths.pending, pending_fd);
    int new_fd = -1;
    if (err == UCI_OK)
        err = file_replace(paths.config, file.info, {content.data, content.size}, new_fd);
    if (new_fd >= 0 && pending_fd >= 0 && ftruncate(pending_fd, 0) != 0)
        err = UCI_ERR_IO;
    if (pending_fd >= 0)
        close(pending_fd);
    if (new_fd >= 0)
        file_unlock(new_fd);
    text_free(content);
    return err;
}

static int apply_own(uci_loaded_package &own, uci_loaded_package &merged)
{
    int err = changes_rebase(own, merged);
    if (err != UCI_OK || own.changes.size == 0)
        return err;
    uci_text copy = {};
    text_append(copy, {own.changes.data, own.changes.size});
    err = copy.out_of_memory ? UCI_ERR_MEM : pending_apply(merged, copy.data, copy.size, merged.pub.has_delta);
    text_free(copy);
    return err;
}

static int commit_merged(uci_context *ctx, uci_package **p, const package_paths &paths, const locked_file &file)
{
    uci_loaded_package *own = loaded(*p);
    uci_loaded_package *merged = nullptr;
    int err = build(ctx, own->pub.e.name, paths, file.fd, merged);
    if (err != UCI_OK)
        return err;
    err = apply_own(*own, *merged);
    if (err == UCI_OK && merged->pub.has_delta)
        // What is written is read back with these names.
        err = number_anonymous_sections(*merged) ? write_locked(*merged, paths, file) : UCI_ERR_MEM;
    if (err != UCI_OK) {
        package_free(merged);
        return err;
    }
    merged->pub.has_delta = false;
    drop_package(*p);
    put_package(ctx, &merged->pub);
    *p = &merged->pub;
    return UCI_OK;
}

static int commit_overwriting(uci_package *p, const package_paths &paths, const locked_file &file)
{
    if (!number_anonymous_sections(*loaded(p)))
        return UCI_ERR_MEM;
    int err = write_locked(*loaded(p), paths, file);
    if (err == UCI_OK) {
        loaded(p)->changes.size = loaded(p)->added = 0;
        p->has_delta = false;
    }
    return err;
}

int uci_commit(uci_context *ctx, uci_package **p, bool overwrite)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!p || !*p)
        return finish(ctx, UCI_ERR_INVAL);
    package_paths paths;
    locked_file file;
    int err = make_paths(*ctx, (*p)->e.name, paths);
    if (err == UCI_OK)
        err = file_lock(paths.config, true, file);
    if (err != UCI_OK)
        return finish(ctx, err);
    err = overwrite ? commit_overwriting(*p, paths, file) : commit_merged(ctx, p, paths, file);
    file_unlock(file.fd);
    return finish(ctx, err);
}

int uci_export(uci_context *ctx, FILE *stream, uci_package *p, bool header)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!stream || !p)
        return finish(ctx, UCI_ERR_INVAL);
    uci_text text = {};
    if (header) {
        text_append(text, "package ");
        text_append(text, p->e.name);
        text_append(text, "\n");
    }
    config_write(*loaded(p), text);
    const bool out_of_memory = text.out_of_memory;
    if (!out_of_memory)
        (void)fwrite(text.data, 1, text.size, stream); // whoever flushes the stream looks
    text_free(text);
    return finish(ctx, out_of_memory ? UCI_ERR_MEM : UCI_OK);
}

void uci_get_errorstr(uci_context *ctx, char **dest, const char *prefix)
{
    static const char *const messages[] = {
        "Success",   "Out of memory", "Invalid argument", "Entry not found",
        "I/O error", "Parse error",   "Duplicate entry",  "Unknown error",
    };
    int err = ctx && ctx->err >= UCI_OK && ctx->err <= UCI_ERR_UNKNOWN ? ctx->err : UCI_ERR_UNKNOWN;
    const char *before = prefix ? prefix : "";
    const char *colon = prefix ? ": " : "";
    int length = err == UCI_ERR_PARSE && ctx->parse_reason
                     ? asprintf(dest, "%s%s%s (%s) at line %zu, byte %zu", before, colon, messages[err],
                                ctx->parse_reason, ctx->parse_line, ctx->parse_byte)
                     : asprintf(dest, "%s%s%s", before, colon, messages[err]);
    if (length < 0)
        *dest = nullptr;
}

void uci_perror(uci_context *ctx, const char *prefix)
{
    char *text = nullptr;
    uci_get_errorstr(ctx, &text, prefix);
    if (text)
        (void)fprintf(stderr, "%s\n", text);
    free(text);
}
