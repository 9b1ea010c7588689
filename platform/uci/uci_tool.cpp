// The command `uci`: reads and changes configuration packages from the shell. Changes go to the pending file; only
// `commit` writes a package's file.

#include "internal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include <CLI/CLI.hpp>

struct invocation {
    uci_context *ctx;
    bool quiet;
    std::vector<std::string> args;
};

static int report(const invocation &call, int err)
{
    if (err == UCI_OK)
        return 0;
    call.ctx->err = err;
    if (!call.quiet)
        uci_perror(call.ctx, "uci");
    return 1;
}

static std::string quoted(const char *value)
{
    uci_text text = {};
    text_append_quoted(text, value);
    if (text.out_of_memory)
        throw std::bad_alloc();
    std::string result(text.data, text.size);
    text_free(text);
    return result;
}

// A lookup together with the text that it points into.
struct lookup {
    std::string text;
    uci_ptr ptr = {};

    int run(const invocation &call)
    {
        text = call.args[0];
        return uci_lookup_ptr(call.ctx, &ptr, text.data(), true);
    }
    // As run, for what is to be there.
    int find(const invocation &call)
    {
        int err = run(call);
        return err == UCI_OK && (ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) == 0 ? UCI_ERR_NOTFOUND : err;
    }
};

static std::string joined(uci_option *o, bool in_quotes)
{
    if (o->type == UCI_TYPE_STRING)
        return in_quotes ? quoted(o->v.string) : o->v.string;
    std::string all;
    uci_element *item;
    uci_foreach_element(&o->v.list, item)
    {
        if (!all.empty() || item != uci_list_to_element(o->v.list.next))
            all += ' ';
        all += in_quotes || strpbrk(item->name, " \t\r\n") ? quoted(item->name) : item->name;
    }
    return all;
}

static int get(invocation &call)
{
    lookup found;
    int err = found.find(call);
    if (err != UCI_OK)
        return report(call, err);
    if (!found.ptr.s)
        return report(call, UCI_ERR_INVAL);
    if (found.ptr.o)
        printf("%s\n", joined(found.ptr.o, false).c_str());
    else
        printf("%s\n", found.ptr.s->type);
    return 0;
}

template<int (*change)(uci_context *, uci_ptr *)> static int change_entry(invocation &call)
{
    lookup found;
    int err = found.run(call);
    if (err == UCI_OK)
        err = change(call.ctx, &found.ptr);
    if (err == UCI_OK)
        err = uci_save(call.ctx, found.ptr.p);
    return report(call, err);
}

static int add(invocation &call)
{
    uci_package *p = nullptr;
    uci_section *s = nullptr;
    int err = uci_load(call.ctx, call.args[0].c_str(), &p);
    if (err == UCI_OK)
        err = uci_add_section(call.ctx, p, call.args[1].c_str(), &s);
    if (err == UCI_OK)
        err = uci_save(call.ctx, p);
    if (err == UCI_OK)
        printf("%s\n", s->e.name);
    return report(call, err);
}

static std::vector<std::string> packages_in(const char *folder, bool with_content)
{
    std::vector<std::string> names;
    std::error_code ignored; // a folder that is not there holds nothing
    for (const auto &entry : std::filesystem::directory_iterator(folder, ignored)) {
        std::string name = entry.path().filename().string();
        if (!valid_package_name(name) || !entry.is_regular_file(ignored))
            continue;
        if (!with_content || entry.file_size(ignored) > 0)
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

static int commit(invocation &call)
{
    std::vector<std::string> names = call.args.empty() ? packages_in(call.ctx->savedir, true) : call.args;
    int result = 0;
    for (const std::string &name : names) {
        uci_package *p = nullptr;
        int err = uci_load(call.ctx, name.c_str(), &p);
        if (err == UCI_OK)
            err = uci_commit(call.ctx, &p, false);
        if (report(call, err) != 0)
            result = 1;
    }
    return result;
}

static void show_option(const std::string &section, uci_option *o)
{
    printf("%s.%s=%s\n", section.c_str(), o->e.name, joined(o, true).c_str());
}

static void show_section(const std::string &name, uci_section *s)
{
    printf("%s=%s\n", name.c_str(), s->type);
    uci_element *e;
    uci_foreach_element(&s->options, e) show_option(name, uci_to_option(e));
}

// With `only`, that section of the package, or with `option` that option of it.
static void show_package(uci_package *p, const uci_section *only, uci_option *option)
{
    std::map<std::string, int> counts;
    uci_element *e;
    uci_foreach_element(&p->sections, e)
    {
        uci_section *s = uci_to_section(e);
        int index = counts[s->type]++;
        if (only && s != only)
            continue;
        std::string name = p->e.name;
        name +=
            s->anonymous ? ".@" + std::string(s->type) + "[" + std::to_string(index) + "]" : "." + std::string(e->name);
        if (option)
            show_option(name, option);
        else
            show_section(name, s);
    }
}

static int show(invocation &call)
{
    if (!call.args.empty()) {
        lookup found;
        int err = found.find(call);
        if (err != UCI_OK)
            return report(call, err);
        show_package(found.ptr.p, found.ptr.s, found.ptr.o);
        return 0;
    }
    int result = 0;
    for (const std::string &name : packages_in(call.ctx->confdir, false)) {
        uci_package *p = nullptr;
        int err = uci_load(call.ctx, name.c_str(), &p);
        if (err == UCI_OK)
            show_package(p, nullptr, nullptr);
        if (report(call, err) != 0)
            result = 1;
    }
    return result;
}

static int export_packages(invocation &call)
{
    int result = 0;
    for (const std::string &name : call.args.empty() ? packages_in(call.ctx->confdir, false) : call.args) {
        uci_package *p = nullptr;
        int err = uci_load(call.ctx, name.c_str(), &p);
        if (err == UCI_OK)
            err = uci_export(call.ctx, stdout, p, true);
        if (report(call, err) != 0)
            result = 1;
    }
    return result;
}

// The lines that stay when one entry's changes are taken back.
struct remaining_changes {
    const uci_ptr &entry;
    uci_text lines = {};
};

static void keep_change(void *arg, const uci_change &change)
{
    auto &rest = *static_cast<remaining_changes *>(arg);
    const bool of_section = !rest.entry.section || change.section == rest.entry.section;
    const bool of_option = !rest.entry.option || change.option == rest.entry.option;
    if (!of_section || !of_option)
        change_write(rest.lines, rest.entry.package, change);
}

static int revert(invocation &call)
{
    lookup found;
    package_paths paths;
    int err = found.run(call);
    if (err == UCI_OK)
        err = make_paths(*call.ctx, found.ptr.package, paths);
    locked_file file = {-1, {}};
    if (err == UCI_OK)
        err = file_lock(paths.config, true, file);
    uci_text before = {};
    remaining_changes rest = {found.ptr};
    if (err == UCI_OK)
        err = pending_read(paths.pending, before);
    if (err == UCI_OK)
        pending_parse(found.ptr.package, before.data, before.size, keep_change, &rest);
    int fd = -1;
    if (err == UCI_OK)
        err = pending_open(paths.pending, fd);
    if (fd >= 0 && (ftruncate(fd, 0) != 0 ||
                    pwrite(fd, rest.lines.data, rest.lines.size, 0) != static_cast<ssize_t>(rest.lines.size)))
        err = UCI_ERR_IO;
    if (fd >= 0)
        close(fd);
    if (file.fd >= 0)
        file_unlock(file.fd);
    text_free(before);
    text_free(rest.lines);
    return report(call, err);
}

static int refuse(invocation &)
{
    fprintf(stderr, "uci: this tool does not offer that command; the router's own does\n");
    return 1;
}

static void print_change(void *arg, const uci_change &change)
{
    std::string name = *static_cast<const std::string *>(arg) + "." + std::string(change.section);
    if (!change.option.empty())
        name += "." + std::string(change.option);
    std::string value = quoted(std::string(change.value).c_str());
    switch (change.kind) {
    case change_kind::set:
    case change_kind::add_section:
        printf("%s=%s\n", name.c_str(), value.c_str());
        break;
    case change_kind::add_value:
        printf("%s+=%s\n", name.c_str(), value.c_str());
        break;
    case change_kind::remove_value:
        printf("%s-=%s\n", name.c_str(), value.c_str());
        break;
    case change_kind::remove:
        printf("-%s\n", name.c_str());
        break;
    case change_kind::rename:
    case change_kind::reorder:
        printf("%c%s=%s\n", static_cast<char>(change.kind), name.c_str(), value.c_str());
        break;
    }
}

static int show_changes(const invocation &call, std::string name)
{
    package_paths paths;
    if (!valid_package_name(name))
        return report(call, UCI_ERR_INVAL);
    int err = make_paths(*call.ctx, name, paths);
    if (err != UCI_OK)
        return report(call, err);
    locked_file file = {-1, {}};
    err = file_lock(paths.config, false, file);
    uci_text lines = {};
    if (err == UCI_OK)
        err = pending_read(paths.pending, lines);
    if (file.fd >= 0)
        file_unlock(file.fd);
    if (err == UCI_OK)
        pending_parse(name, lines.data, lines.size, print_change, &name);
    text_free(lines);
    return report(call, err);
}

static int changes(invocation &call)
{
    int result = 0;
    for (const std::string &name : call.args.empty() ? packages_in(call.ctx->savedir, true) : call.args)
        result |= show_changes(call, name);
    return result;
}

struct command {
    const char *name;
    size_t least_args;
    size_t most_args;
    int (*run)(invocation &);
};

static const command commands[] = {
    {"get", 1, 1, get},
    {"set", 1, 1, change_entry<uci_set>},
    {"add_list", 1, 1, change_entry<uci_add_list>},
    {"delete", 1, 1, change_entry<uci_delete>},
    {"add", 2, 2, add},
    {"commit", 0, 1, commit},
    {"show", 0, 1, show},
    {"changes", 0, 1, changes},
    {"export", 0, 1, export_packages},
    {"revert", 1, 1, revert},
    {"import", 0, 9, refuse},
    {"batch", 0, 9, refuse},
    {"rename", 0, 9, refuse},
    {"reorder", 0, 9, refuse},
    {"del_list", 0, 9, refuse},
};

int main(int argc, char **argv)
{
    CLI::App app{
        "Reads and changes configuration packages.\n"
        "Commands: get <entry>, set <entry>=<value>, add_list <option>=<value>, delete <entry>, "
        "add <package> <type>, commit [<package>], show [<entry>], changes [<package>], export [<package>], revert <entry>"};
    std::string confdir = UCI_CONFDIR;
    std::string savedir = UCI_SAVEDIR;
    std::string name;
    invocation call = {};
    app.add_option("-c", confdir, "folder of the packages")->take_last();
    app.add_option("-t", savedir, "folder of the pending changes")->take_last();
    app.add_flag("-q", call.quiet, "no error messages");
    app.add_option("command", name)->required();
    app.add_option("arguments", call.args);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 1;
    }

    auto chosen = std::find_if(std::begin(commands), std::end(commands), [&](auto &c) { return name == c.name; });
    if (chosen == std::end(commands) || call.args.size() < chosen->least_args || call.args.size() > chosen->most_args) {
        fprintf(stderr, "%s", app.help().c_str());
        return 1;
    }
    std::unique_ptr<uci_context, void (*)(uci_context *)> ctx(uci_alloc_context(), uci_free_context);
    call.ctx = ctx.get();
    if (!call.ctx || uci_set_confdir(call.ctx, confdir.c_str()) != UCI_OK ||
        uci_set_savedir(call.ctx, savedir.c_str()) != UCI_OK) {
        fprintf(stderr, "uci: Invalid argument\n");
        return 1;
    }
    int result = chosen->run(call);
    return fflush(stdout) == 0 ? result : 1;
}
