// What only the stand-in promises: nothing of two writers at once is lost, a failed write costs nothing, and large
// files load in linear time.
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

#include "uci_user.h"

TEST_F(Uci, TwoWritersLoseNoChange)
{
    constexpr int changes = 500;
    put(config("p"), sample);
    in_processes(2, [&](int writer) {
        for (int i = 0; i < changes; i++) {
            std::string option = (writer ? "b" : "a") + std::to_string(i);
            user u(root);
            if (u.change(uci_set, "p.main." + option + "=" + option) != UCI_OK)
                return 1;
            if ((i % 2 && u.save() != UCI_OK) || u.commit() != UCI_OK)
                return 2;
        }
        return 0;
    });
    user u(root);
    for (int i = 0; i < changes; i++)
        for (std::string writer : {"a", "b"}) {
            std::string option = writer + std::to_string(i);
            ASSERT_EQ(u.value("p.main." + option), option);
        }
}

TEST_F(Uci, TwoProcessesThatAddSectionsDoNotMixThem)
{
    constexpr int sections = 40;
    put(config("p"), "");
    in_processes(2, [&](int writer) {
        for (int i = 0; i < sections; i++) {
            user u(root);
            uci_package *p = nullptr;
            uci_section *s = nullptr;
            if (uci_load(u.ctx, "p", &p) || uci_add_section(u.ctx, p, "profile", &s) || uci_save(u.ctx, p))
                return 1;
            std::string name = "p." + std::string(s->e.name);
            if (u.change(uci_set, name + ".apn=" + std::to_string(writer)) || uci_commit(u.ctx, &p, false))
                return 2;
        }
        return 0;
    });
    int of_writer[2] = {0, 0};
    user u(root);
    for (int i = 0; i < 2 * sections; i++)
        of_writer[u.value("p.@profile[" + std::to_string(i) + "].apn") == "1"]++;
    EXPECT_EQ(of_writer[0], sections);
    EXPECT_EQ(of_writer[1], sections);
    EXPECT_FALSE(u.complete("p.@profile[" + std::to_string(2 * sections) + "]"));
}

TEST_F(Uci, AFailedWriteLeavesTheOldFile)
{
    std::string big = sample + std::string("\nconfig big 'big'\n\toption v '") + std::string(20000, 'x') + "'\n";
    put(config("p"), big);
    in_processes(1, [&](int) {
        struct rlimit limit = {8192, 8192};
        (void)signal(SIGXFSZ, SIG_IGN);
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 1;
        user u(root);
        if (u.change(uci_set, "p.main.one=2") != UCI_OK)
            return 2;
        return u.commit() == UCI_ERR_IO ? 0 : 3;
    });
    EXPECT_EQ(committed("p"), big);

    // Root may write everywhere, so somebody else tries.
    fs::permissions(root / "config", fs::perms(0555));
    fs::permissions(root / "pending", fs::perms(0777));
    in_processes(1, [&](int) {
        if (geteuid() == 0 && setuid(65534) != 0)
            return 1;
        user u(root);
        if (u.change(uci_set, "p.main.one=2") != UCI_OK)
            return 2;
        return u.commit() == UCI_ERR_IO ? 0 : 3;
    });
    fs::permissions(root / "config", fs::perms(0755));
    EXPECT_EQ(committed("p"), big);
    EXPECT_EQ(std::distance(fs::directory_iterator(root / "config"), fs::directory_iterator()), 1);
}

TEST_F(Uci, RefusesWhatIsNoFile)
{
    fs::create_directory(config("folder"));
    ASSERT_EQ(mkfifo(config("pipe").c_str(), 0600), 0);
    fs::create_symlink("nowhere", config("dangling"));
    user u(root);
    EXPECT_EQ(u.lookup("folder.a.b"), UCI_ERR_IO);
    EXPECT_EQ(u.lookup("pipe.a.b"), UCI_ERR_IO);
    EXPECT_EQ(u.lookup("dangling.a.b"), UCI_ERR_NOTFOUND);
}

TEST_F(Uci, LoadsTenMegabytesOfAnyShape)
{
    constexpr size_t size = 10000000;
    std::string options = "config t s\n";
    std::string named;
    std::string anonymous;
    std::string list = options;
    for (int i = 0; options.size() < size; i++)
        options += "option o" + std::to_string(i) + " v\n";
    for (int i = 0; named.size() < size; i++)
        named += "config t n" + std::to_string(i) + "\n option a b\n";
    while (anonymous.size() < size)
        anonymous += "config t\n";
    while (list.size() < size)
        list += "list l v\n";
    struct row {
        std::string text;
        const char *key;
    };
    for (const row &r : {row{options, "p.s.o0"}, row{named, "p.n0.a"}, row{anonymous, "p.@t[-1]"}, row{list, "p.s.l"},
                         row{"config t s\n option o '" + std::string(size, '\'') + "x'\n", "p.s.o"}}) {
        put(config("p"), r.text);
        user u(root);
        EXPECT_TRUE(u.complete(r.key)) << r.key;
    }
    put(config("p"), "config t s\n option o '" + std::string(size, 'x'));
    EXPECT_EQ(user(root).lookup("p"), UCI_ERR_PARSE);
}
