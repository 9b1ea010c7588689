// What every library of configuration packages must do, whichever is linked.
#include <cstddef>

#include "uci_user.h"

static_assert(UCI_OK == 0 && UCI_ERR_MEM == 1 && UCI_ERR_INVAL == 2 && UCI_ERR_NOTFOUND == 3 && UCI_ERR_IO == 4 &&
              UCI_ERR_PARSE == 5 && UCI_ERR_DUPLICATE == 6 && UCI_ERR_UNKNOWN == 7);
static_assert(UCI_TYPE_PACKAGE == 2 && UCI_TYPE_SECTION == 3 && UCI_TYPE_OPTION == 4 && UCI_TYPE_ITEM == 7);
static_assert(UCI_TYPE_STRING == 0 && UCI_TYPE_LIST == 1);
static_assert(uci_ptr::UCI_LOOKUP_DONE == 1 && uci_ptr::UCI_LOOKUP_COMPLETE == 2);
static_assert(offsetof(uci_element, type) < offsetof(uci_element, name));
static_assert(offsetof(uci_section, options) < offsetof(uci_section, package) &&
              offsetof(uci_section, package) < offsetof(uci_section, anonymous) &&
              offsetof(uci_section, anonymous) < offsetof(uci_section, type));
static_assert(offsetof(uci_option, section) < offsetof(uci_option, type) &&
              offsetof(uci_option, type) < offsetof(uci_option, v));
static_assert(offsetof(uci_ptr, flags) < offsetof(uci_ptr, p) && offsetof(uci_ptr, o) < offsetof(uci_ptr, last) &&
              offsetof(uci_ptr, option) < offsetof(uci_ptr, value));

TEST_F(Uci, ReadsEveryWayOfWritingAWord)
{
    struct row {
        const char *line;
        const char *value;
    };
    for (const row &r : std::vector<row>{
             {"option o bare", "bare"},
             {"option o 'single quoted'", "single quoted"},
             {"option o \"double quoted\"", "double quoted"},
             {"option o 'it'\\''s'", "it's"},
             {"option o \"say \\\"so\\\"\"", "say \"so\""},
             {"option o 'back\\slash'", "back\\slash"},
             {"option o 'a # b'", "a # b"},
             {"option o a # comment", "a"},
             {"\t option\t'o'\t v \t", "v"},
             {"option o 'two\nlines'", "two\nlines"},
             {"option o ''\n\toption o x", "x"},
             {"option o ''", "<none>"},
             {"option o", "<none>"},
             {"list o a\n\tlist o 'b c'", "[a][b c]"},
             {"list o a\n\toption o b", "b"},
         }) {
        put(config("p"), std::string("config t s\n\t") + r.line + "\n");
        EXPECT_EQ(value("p.s.o"), r.value) << r.line;
    }
    put(config("p"), "config t s\n\toption o end");
    EXPECT_EQ(value("p.s.o"), "end");
}

TEST_F(Uci, RefusesAFileThatDoesNotParseAndLeavesItAlone)
{
    for (std::string text :
         {"foo bar\n", "config\n", "option a b\n", "config t s x y\n", "config t s\n\toption a 'open\n\n",
          "config t 'na me'\n", "config t s\n\toption 'a b' c\n"}) {
        put(config("p"), text);
        user u(root);
        EXPECT_EQ(uci_load(u.ctx, "p", nullptr), UCI_ERR_PARSE) << text;
        EXPECT_EQ(u.change(uci_set, "p.s.a=1"), UCI_ERR_PARSE) << text;
        EXPECT_EQ(committed("p"), text);
    }
    EXPECT_TRUE(fs::is_empty(root / "pending"));
}

TEST_F(Uci, LooksUpNamesAndIndexes)
{
    put(config("p"), sample);
    put(config("empty"), "");
    struct row {
        const char *key;
        int err;
        const char *value;
    };
    for (const row &r : std::vector<row>{
             {"p", UCI_OK, "p"},
             {"p.main", UCI_OK, "settings"},
             {"p.main.one", UCI_OK, "1"},
             {"p.main.many", UCI_OK, "[a][b c]"},
             {"p.main.two", UCI_OK, "<none>"},
             {"p.nobody", UCI_OK, "<none>"},
             {"p.nobody.one", UCI_OK, "<none>"},
             {"p.@profile[0].apn", UCI_OK, "first"},
             {"p.@profile[1].apn", UCI_OK, "second"},
             {"p.@profile[-1].apn", UCI_OK, "second"},
             {"p.@profile[-2].apn", UCI_OK, "first"},
             {"p.@other[0].apn", UCI_OK, "odd"},
             {"p.@profile[0]", UCI_OK, "profile"},
             {"empty", UCI_OK, "empty"},
             {"empty.a.b", UCI_OK, "<none>"},
             {"absent", UCI_ERR_NOTFOUND, "<none>"},
             {"absent.a.b", UCI_ERR_NOTFOUND, "<none>"},
         }) {
        user u(root);
        EXPECT_EQ(u.lookup(r.key), r.err) << r.key;
        EXPECT_EQ(u.value(r.key), r.value) << r.key;
    }
    for (const char *bad : {"", "a/b.c", "../config/p.main", "p.@profile[x]"})
        EXPECT_NE(user(root).lookup(bad), UCI_OK) << bad;
    for (const char *past : {"p.@profile[2]", "p.@profile[-3]", "p.@nothing[0].apn", "p.@profile[99999999999]"})
        EXPECT_FALSE(user(root).complete(past)) << past;
}

TEST_F(Uci, TellsWhatWasFound)
{
    put(config("p"), sample);
    user u(root);
    ASSERT_EQ(u.lookup("p.main.two=a=b"), UCI_OK);
    EXPECT_EQ(u.ptr.target, UCI_TYPE_OPTION);
    EXPECT_STREQ(u.ptr.value, "a=b");
    EXPECT_STREQ(u.ptr.option, "two");
    EXPECT_EQ(u.ptr.o, nullptr);
    EXPECT_EQ(u.ptr.last, &u.ptr.s->e);
    ASSERT_EQ(u.lookup("p.@profile[0].apn"), UCI_OK);
    EXPECT_EQ(u.ptr.last, &u.ptr.o->e);
    EXPECT_TRUE(u.ptr.s->anonymous);
    EXPECT_EQ(std::string(u.ptr.s->e.name).substr(0, 3), "cfg");
    EXPECT_EQ(std::string(u.ptr.s->e.name).size(), 9U);
    std::string name = u.ptr.s->e.name;
    user other(root);
    ASSERT_EQ(other.lookup("p.@profile[0]"), UCI_OK);
    EXPECT_EQ(other.ptr.s->e.name, name);
    EXPECT_EQ(other.value("p." + name + ".apn"), "first");

    char text[] = "p.@profile[0]";
    EXPECT_EQ(uci_lookup_ptr(u.ctx, &u.ptr, text, false), UCI_ERR_INVAL);
}

TEST_F(Uci, OthersSeeASavedChangeAndTheFileOnlyACommittedOne)
{
    put(config("p"), sample);
    fs::permissions(config("p"), fs::perms(0640));
    user u(root);
    ASSERT_EQ(u.change(uci_set, "p.main.one=2"), UCI_OK);
    EXPECT_EQ(value("p.main.one"), "1");
    ASSERT_EQ(u.save(), UCI_OK);
    EXPECT_EQ(value("p.main.one"), "2");
    EXPECT_EQ(content_of(root / "pending/p"), "p.main.one='2'\n");
    ASSERT_EQ(u.change(uci_set, "p.new=kind"), UCI_OK);
    ASSERT_EQ(u.change(uci_set, "p.new.a=b"), UCI_OK);
    ASSERT_EQ(u.change(uci_add_list, "p.main.many=d"), UCI_OK);
    ASSERT_EQ(u.change(uci_add_list, "p.main.one=3"), UCI_OK);
    ASSERT_EQ(u.change(uci_delete, "p.@profile[0]"), UCI_OK);
    EXPECT_EQ(committed("p"), sample);

    ASSERT_EQ(u.commit(), UCI_OK);
    EXPECT_EQ(committed("p"), "\nconfig settings 'main'\n\tlist one '2'\n\tlist one '3'\n\tlist many 'a'\n"
                              "\tlist many 'b c'\n\tlist many 'd'\n\nconfig other\n\toption apn 'odd'\n"
                              "\nconfig profile\n\toption apn 'second'\n\nconfig kind 'new'\n\toption a 'b'\n\n");
    EXPECT_EQ(content_of(root / "pending/p"), "");
    EXPECT_TRUE(fs::exists(root / "pending/p"));
    EXPECT_EQ(fs::status(config("p")).permissions(), fs::perms(0640));
    EXPECT_EQ(std::distance(fs::directory_iterator(root / "config"), fs::directory_iterator()), 1);
}

TEST_F(Uci, RefusesChangesOfWhatIsNotThere)
{
    put(config("p"), sample);
    user u(root);
    EXPECT_EQ(u.change(uci_set, "absent.a.b=1"), UCI_ERR_NOTFOUND);
    EXPECT_EQ(u.change(uci_set, "p.nobody.b=1"), UCI_ERR_INVAL);
    EXPECT_EQ(u.change(uci_set, "p.@profile[7].apn=1"), UCI_ERR_INVAL);
    EXPECT_EQ(u.change(uci_set, "p.main.one"), UCI_ERR_INVAL);
    EXPECT_EQ(u.change(uci_add_list, "p.nobody.b=1"), UCI_ERR_INVAL);
    EXPECT_EQ(u.change(uci_delete, "p.nobody"), UCI_ERR_NOTFOUND);
    EXPECT_EQ(u.change(uci_delete, "p.main.two"), UCI_ERR_NOTFOUND);
    EXPECT_NE(uci_load(u.ctx, "../p", nullptr), UCI_OK);
    EXPECT_NE(uci_load(u.ctx, "..", nullptr), UCI_OK);
    ASSERT_EQ(u.lookup("p"), UCI_OK);
    EXPECT_EQ(u.save(), UCI_OK);
    EXPECT_EQ(u.commit(), UCI_OK);
    EXPECT_EQ(committed("p"), sample);
    EXPECT_TRUE(fs::is_empty(root / "pending"));
}

TEST_F(Uci, KeepsTextsByteForByte)
{
    put(config("p"), sample);
    std::string every_byte = "\t\n\r"; // the other control characters are no text
    for (int c = 32; c < 256; c++)
        every_byte += static_cast<char>(c);
    for (const std::string &text : {std::string("it's 'quoted'"), std::string("\"\\\"'\\'' \\"), std::string("a=b.c#d"),
                                    std::string("  blanks\tand tabs "), std::string("two\nlines\n'x'\n"),
                                    std::string("gr\xc3\xbc\xc3\x9f dich \xf0\x9f\x93\xb6"), std::string(4096, '\''),
                                    std::string(4096, 'x'), every_byte}) {
        user u(root);
        ASSERT_EQ(u.change(uci_set, "p.main.one=" + text), UCI_OK);
        ASSERT_EQ(u.change(uci_add_list, "p.@profile[0].l=" + text), UCI_OK);
        ASSERT_EQ(u.save(), UCI_OK);
        EXPECT_EQ(value("p.main.one"), text);
        ASSERT_EQ(u.commit(), UCI_OK);
        EXPECT_EQ(value("p.main.one"), text);
        EXPECT_EQ(value("p.@profile[0].l"), "[" + text + "]");
        ASSERT_EQ(u.change(uci_delete, "p.@profile[0].l"), UCI_OK);
        ASSERT_EQ(u.commit(), UCI_OK);
    }
}

TEST_F(Uci, AnEmptyValueDeletes)
{
    put(config("p"), sample);
    user u(root);
    ASSERT_EQ(u.change(uci_set, "p.main.one="), UCI_OK);
    EXPECT_EQ(u.value("p.main.one"), "<none>");
    ASSERT_EQ(u.lookup("p"), UCI_OK);
    ASSERT_EQ(u.commit(), UCI_OK);
    EXPECT_EQ(value("p.main.one"), "<none>");
    ASSERT_EQ(u.change(uci_set, "p.main.nothing="), UCI_OK);
}

TEST_F(Uci, ExportsWhatACommitWouldWrite)
{
    put(config("p"), sample);
    user u(root);
    ASSERT_EQ(u.change(uci_set, "p.main.one=it's"), UCI_OK);
    for (bool header : {false, true}) {
        char *text = nullptr;
        size_t size = 0;
        FILE *stream = open_memstream(&text, &size);
        EXPECT_EQ(uci_export(u.ctx, stream, u.ptr.p, header), UCI_OK);
        fclose(stream);
        EXPECT_EQ(text, std::string(header ? "package p\n" : "") +
                            "\nconfig settings 'main'\n\toption one 'it'\\''s'\n\tlist many 'a'\n\tlist many 'b c'\n"
                            "\nconfig profile\n\toption apn 'first'\n\nconfig other\n\toption apn 'odd'\n"
                            "\nconfig profile\n\toption apn 'second'\n\n");
        free(text);
    }
    EXPECT_EQ(committed("p"), sample);
}

TEST_F(Uci, AddsAnonymousSectionsAtTheEnd)
{
    put(config("p"), "\n");
    for (std::string apn : {"one", "two"}) {
        user u(root);
        uci_package *p = nullptr;
        uci_section *s = nullptr;
        ASSERT_EQ(uci_load(u.ctx, "p", &p), UCI_OK);
        ASSERT_EQ(uci_add_section(u.ctx, p, "profile", &s), UCI_OK);
        ASSERT_EQ(uci_save(u.ctx, p), UCI_OK);
        ASSERT_EQ(u.change(uci_set, "p." + std::string(s->e.name) + ".apn=" + apn), UCI_OK);
        EXPECT_EQ(u.value("p.@profile[-1].apn"), apn);
        ASSERT_EQ(uci_commit(u.ctx, &p, false), UCI_OK);
    }
    EXPECT_EQ(committed("p"), "\nconfig profile\n\toption apn 'one'\n\nconfig profile\n\toption apn 'two'\n\n");
}

TEST_F(Uci, AppliesEveryKindOfPendingLine)
{
    put(config("p"), sample);
    put(root / "pending/p",
        "p.main.one='new\nline'\np.named='kind'\np.named.x=bare\n|p.main.many='d'\n~p.main.many='a'\n"
        "+p.cfgabcdef='profile'\np.cfgabcdef.apn='third'\n@p.main.one='uno'\n@p.named='renamed'\n"
        "^p.renamed='0'\n-p.main.nothing\n");
    user u(root);
    EXPECT_EQ(u.value("p.main.uno"), "new\nline");
    EXPECT_EQ(u.value("p.main.one"), "<none>");
    EXPECT_EQ(u.value("p.main.many"), "[b c][d]");
    EXPECT_EQ(u.value("p.@profile[2].apn"), "third");
    EXPECT_EQ(u.value("p.renamed.x"), "bare");
    for (std::string lines : {"-p.main.one\n-p.cfg\n-p.main\n", "p.main.none=''\np.main.one=''\np.main=''\n"}) {
        put(root / "pending/p", "p.main.one=''\n");
        EXPECT_EQ(value("p.main.one"), "<none>");
        put(root / "pending/p", lines);
        EXPECT_EQ(value("p.main"), "<none>") << lines;
    }
    put(root / "pending/p", "p.main.one='2'\n");
    ASSERT_EQ(u.commit(), UCI_OK);
    EXPECT_EQ(value("p.main.one"), "2");
}

TEST_F(Uci, ACommitKeepsWhatOthersCommittedMeanwhile)
{
    put(config("p"), sample);
    user first(root);
    user second(root);
    ASSERT_EQ(first.change(uci_set, "p.main.first=1"), UCI_OK);
    ASSERT_EQ(second.change(uci_set, "p.main.second=2"), UCI_OK);
    ASSERT_EQ(second.commit(), UCI_OK);
    ASSERT_EQ(first.commit(), UCI_OK);
    EXPECT_EQ(value("p.main.first"), "1");
    EXPECT_EQ(value("p.main.second"), "2");
}

TEST_F(Uci, ACommitFollowsALinkAndLeavesIt)
{
    put(config("real"), "config t s\n");
    fs::create_symlink("real", config("link"));
    user u(root);
    ASSERT_EQ(u.change(uci_set, "link.s.a=b"), UCI_OK);
    ASSERT_EQ(u.commit(), UCI_OK);
    EXPECT_TRUE(fs::is_symlink(config("link")));
    EXPECT_EQ(value("real.s.a"), "b");
}

TEST_F(Uci, SurvivesAnyBytes)
{
    unsigned state = 1;
    auto random = [&] { return (state = state * 1664525U + 1013904223U) >> 16; };
    std::string lines = "p.main.one='2'\n-p.main\n+p.cfg123456='t'\n|p.main.l='x'\n@p.main='m'\n^p.m='1'\n";
    for (int round = 0; round < 1000; round++) {
        std::string text = sample;
        std::string pending = lines;
        for (int i = 0; i < 4; i++) {
            text[random() % text.size()] = static_cast<char>(random());
            pending[random() % pending.size()] = static_cast<char>("\n'\"\\=.@-\0\xff"[random() % 10]);
        }
        put(config("p"), text);
        put(root / "pending/p", pending);
        user u(root);
        int err = u.change(uci_set, "p.@settings[0].one=3");
        EXPECT_TRUE(err == UCI_OK || err == UCI_ERR_PARSE || err == UCI_ERR_INVAL) << text << pending;
        if (err == UCI_OK) {
            EXPECT_EQ(u.commit(), UCI_OK);
            EXPECT_EQ(user(root).lookup("p"), UCI_OK) << committed("p");
        } else if (err == UCI_ERR_PARSE) {
            EXPECT_EQ(committed("p"), text);
        }
    }
}
