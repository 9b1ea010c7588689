// What only the stand-in promises: nothing of two writers at once is lost, a failed write costs nothing, and large
// files load in linear time.
#include <sys/stat.h>

#include "file_size_limit.h"
#include "uci_user.h"

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
            if (u.change(uci_set, name + ".apn=" + std::to_string(writer)))
                return 2;
            if ((i % 2 && u.save() != UCI_OK) || u.commit() != UCI_OK)
                return 3;
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
    auto refused = [&] {
        user u(root);
        return u.change(uci_set, "p.main.one=2") == UCI_OK && u.commit() == UCI_ERR_IO;
    };
    {
        FileSizeLimit limit(8192);
        EXPECT_TRUE(refused());
    }
    EXPECT_EQ(committed("p"), big);

    // Root may write everywhere, so somebody else tries.
    fs::permissions(root / "config", fs::perms(0555));
    fs::permissions(root / "pending", fs::perms(0777));
    in_processes(1, [&](int) { return (geteuid() == 0 && setuid(65534) != 0) || !refused(); });
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
    auto repeated = [](std::string text, const std::string &line, const char *behind_number = nullptr) {
        for (int i = 0; text.size() < size; i++)
            text += behind_number ? line + std::to_string(i) + behind_number : line;
        return text;
    };
    const struct {
        std::string text;
        const char *key;
    } rows[] = {
        {repeated("config t s\n", "option o", " v\n"), "p.s.o0"},
        {repeated("", "config t n", "\n option a b\n"), "p.n0.a"},
        {repeated("", "config t\n"), "p.@t[-1]"},
        {repeated("config t s\n", "list l v\n"), "p.s.l"},
        {"config t s\n option o '" + std::string(size, '\'') + "x'\n", "p.s.o"},
    };
    for (const auto &row : rows) {
        put(config("p"), row.text);
        EXPECT_TRUE(user(root).complete(row.key)) << row.key;
    }
    put(config("p"), "config t s\n option o '" + std::string(size, 'x'));
    EXPECT_EQ(user(root).lookup("p"), UCI_ERR_PARSE);
}
