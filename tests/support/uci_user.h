// One user of configuration packages after another, in folders of the test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <uci.h>
}

namespace fs = std::filesystem;

inline std::string content_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

inline void put(const fs::path &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

// One user of the packages, as each process and each call of a daemon is one.
struct user {
    uci_context *ctx = uci_alloc_context();
    std::string text;
    uci_ptr ptr = {};

    explicit user(const fs::path &root)
    {
        uci_set_confdir(ctx, (root / "config").c_str());
        uci_set_savedir(ctx, (root / "pending").c_str());
    }
    user(const user &) = delete;
    ~user()
    {
        uci_free_context(ctx);
    }
    int lookup(const std::string &key)
    {
        text = key;
        return uci_lookup_ptr(ctx, &ptr, text.data(), true);
    }
    bool complete(const std::string &key)
    {
        return lookup(key) == UCI_OK && (ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE);
    }
    int change(int (*how)(uci_context *, uci_ptr *), const std::string &key)
    {
        int err = lookup(key);
        return err ? err : how(ctx, &ptr);
    }
    int save()
    {
        return uci_save(ctx, ptr.p);
    }
    int commit()
    {
        uci_package *p = ptr.p;
        int err = uci_commit(ctx, &p, false);
        ptr = {};
        return err;
    }
    // Values of a list stand in brackets.
    std::string value(const std::string &key)
    {
        if (!complete(key))
            return "<none>";
        if (!ptr.o)
            return ptr.s ? ptr.s->type : ptr.p->e.name;
        if (ptr.o->type == UCI_TYPE_STRING)
            return ptr.o->v.string;
        std::string all;
        uci_element *item;
        uci_foreach_element(&ptr.o->v.list, item) all += "[" + std::string(item->name) + "]";
        return all;
    }
};

struct Uci : testing::Test {
    fs::path root;

    Uci()
    {
        std::string name = BIN_DIR "/../uci-test-XXXXXX";
        root = fs::canonical(mkdtemp(name.data()));
        fs::create_directory(root / "config");
        fs::create_directory(root / "pending");
        fs::permissions(root, fs::perms(0755));
    }
    ~Uci() override
    {
        fs::remove_all(root);
    }
    fs::path config(const char *name) const
    {
        return root / "config" / name;
    }
    std::string value(const std::string &key)
    {
        return user(root).value(key);
    }
    std::string committed(const char *name)
    {
        return content_of(config(name));
    }
};

inline const char *const sample =
    "# sample\nconfig settings 'main'\n\toption one '1'\n\tlist many 'a'\n\tlist many 'b c'\n"
    "\nconfig profile\n\toption apn 'first'\n\nconfig other\n\toption apn 'odd'\n"
    "\nconfig profile\n\toption apn 'second'\n";

// Runs `work` in as many processes; all must succeed.
template<typename Work> void in_processes(int count, Work work)
{
    std::vector<pid_t> children;
    for (int i = 0; i < count; i++) {
        pid_t child = fork();
        if (child == 0)
            _exit(work(i));
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}
