// What the package puts into a router's image: complete, understood by those who read it, and the same as the tables of
// the daemon.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "config.h"
#include "message_store.h"
#include "method_table.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const fs::path router = SOURCE_DIR "/router";

std::string content_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

// Output and exit status of a command line.
std::pair<int, std::string> run(const std::string &command)
{
    std::string output;
    char buffer[4096];
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    while (size_t got = fread(buffer, 1, sizeof buffer, pipe))
        output.append(buffer, got);
    return {pclose(pipe), output};
}

struct PackageTest : testing::Test {
    fs::path folder = fs::path(testing::TempDir()) / ("celmux_package_" + std::to_string(getpid()));

    void SetUp() override
    {
        for (const char *program : {"celmux", "celmuxd"}) {
            fs::create_directories(folder / "build/build/bin");
            std::ofstream(folder / "build/build/bin" / program) << program;
        }
    }
    void TearDown() override
    {
        fs::remove_all(folder);
    }
    std::string make(const std::string &arguments)
    {
        auto [status, output] =
            run("make -s -C '" + router.string() + "' TOPDIR=" SOURCE_DIR "/tests/router/build_system PKG_BUILD_DIR='" +
                (folder / "build").string() + "' IMAGE='" + (folder / "image").string() + "' " + arguments);
        EXPECT_EQ(status, 0) << output;
        return output;
    }
};

TEST_F(PackageTest, InstallsEverythingWhereTheRouterLooks)
{
    make("install");
    std::set<std::string> installed;
    for (const auto &entry : fs::recursive_directory_iterator(folder / "image")) {
        if (!entry.is_regular_file())
            continue;
        std::string name = entry.path().lexically_relative(folder / "image");
        if (entry.is_symlink()) { // one for each command, for a shell that completes nothing but programs
            EXPECT_TRUE(name.starts_with("usr/lib/celmux/celmux-")) << name;
            EXPECT_EQ(fs::canonical(entry.path()), fs::canonical(folder / "image/usr/bin/celmux")) << name;
            continue;
        }
        installed.insert(name);
        bool program = (entry.status().permissions() & fs::perms::owner_exec) != fs::perms::none;
        EXPECT_EQ(program,
                  name.starts_with("usr/bin/") || name.starts_with("usr/sbin/") || name.starts_with("etc/init.d/"))
            << name;
    }
    const std::set<std::string> expected = {
        "etc/config/apn",
        "etc/config/modem",
        "etc/config/profiles",
        "etc/hotplug.d/tty/90-celmux",
        "etc/hotplug.d/wwan/90-celmux",
        "etc/init.d/celmux",
        "etc/profile.d/celmux.sh",
        "etc/ril.json",
        "etc/uci-defaults/50-celmux",
        "lib/upgrade/keep.d/celmux",
        "usr/bin/celmux",
        "usr/sbin/celmuxd",
        "usr/share/bash-completion/completions/celmux",
        "usr/share/rpcd/acl.d/celmux.json",
    };
    EXPECT_EQ(installed, expected);
    EXPECT_EQ(content_of(folder / "image/etc/ril.json"), content_of(router / "etc/ril.json"));
    make("install CONFIG_CELMUX_PORT_FILE=y");
    EXPECT_EQ(content_of(folder / "image/etc/ril.json"), content_of(router / "etc/ril-file.json"));

    std::istringstream description(make("show"));
    for (std::string line; std::getline(description, line);) {
        bool kept_by_upgrades = line.starts_with("/");
        EXPECT_TRUE(!kept_by_upgrades || installed.contains(line.substr(1))) << line;
    }
}

TEST_F(PackageTest, CopiesAllThatTheBuildNeeds)
{
    make("prepare");
    auto [status, output] = run("cmake -G Ninja -S '" + (folder / "build").string() + "' -B '" +
                                (folder / "build/build").string() + "' -DCELMUX_TESTS=OFF -DCELMUX_PLATFORM=bundled");
    ASSERT_EQ(status, 0) << output;
    std::string rules = content_of(folder / "build/build/build.ninja");
    for (const char *program : {"build bin/celmuxd:", "build bin/celmux:"})
        EXPECT_NE(rules.find(program), std::string::npos) << program;
}

TEST(RouterFiles, ShellFilesPassShellcheck)
{
    std::string files;
    for (auto entry = fs::recursive_directory_iterator(SOURCE_DIR); entry != fs::end(entry); ++entry) {
        std::string name = entry->path().filename();
        if (entry.depth() == 0 && (name.starts_with("build") || name == ".git" || name == ".cache"))
            entry.disable_recursion_pending();
        std::string line;
        std::ifstream file(entry->path());
        if (!entry->is_regular_file() || !std::getline(file, line))
            continue;
        bool program =
            line.starts_with("#!") && (line.find("/sh") != std::string::npos || line.find("bash") != std::string::npos);
        if (program || name.ends_with(".sh") || line.starts_with("# shellcheck shell="))
            files += " '" + entry->path().string() + "'";
    }
    EXPECT_NE(files.find("router/etc/init.d/celmux'"), std::string::npos);
    auto [status, output] = run("shellcheck" + files);
    EXPECT_EQ(status, 0) << output;
}

TEST(RouterFiles, UpgradesKeepTheMessages)
{
    EXPECT_EQ(content_of(router / "lib/upgrade/keep.d/celmux"), std::string(MESSAGE_FILE) + "\n");
}

TEST(ManPages, AreUnderstood)
{
    int pages = 0;
    for (const auto &entry : fs::directory_iterator(SOURCE_DIR "/docs")) {
        if (entry.path().extension() != ".8" && entry.path().extension() != ".1")
            continue;
        pages++;
        auto [status, output] = run("groff -man -Tutf8 -wall -z '" + entry.path().string() + "'");
        EXPECT_EQ(status, 0);
        EXPECT_EQ(output, "");
    }
    EXPECT_GT(pages, 0);
}

struct RilJson : testing::TestWithParam<const char *> {
    void TearDown() override
    {
        free_configuration();
    }
};

TEST_P(RilJson, IsWhatTheDaemonReads)
{
    fs::path path = router / "etc" / GetParam();
    bool serial = GetParam() == std::string_view("ril.json");
    settings_g = {};
    ASSERT_EQ(read_json(path.c_str()), 0);
    ASSERT_EQ(parse_settings(), 0);
    ASSERT_EQ(load_pre_execute(), 0);
    EXPECT_EQ(settings_g.port_type, serial ? PORT_SERIAL : PORT_FILE);
    EXPECT_EQ(std::string_view(settings_g.port).substr(0, 5), "/dev/");
    EXPECT_EQ(settings_g.burst_gap_ms, serial ? 20u : 0u);
    ExpectedResults *results = nullptr;
    ASSERT_EQ(load_expected_results(&results), 0);
    for (uint32_t i = 0; i < results->count; i++)
        EXPECT_NE(results->entries[i], nullptr) << i;
    free_expected_results(results);

    // Each key is explained.
    std::string page = content_of(SOURCE_DIR "/docs/configuration.md");
    json document = json::parse(content_of(path));
    json keys = document;
    keys.update(document["settings"]);
    for (const auto &[key, value] : keys.items())
        EXPECT_NE(page.find("`" + key + "`"), std::string::npos) << key;
}

INSTANTIATE_TEST_SUITE_P(Both, RilJson, testing::Values("ril.json", "ril-file.json"));

std::set<std::string> methods_of(Access access)
{
    std::set<std::string> names;
    for (const MethodRow &row : method_rows) {
        if (row.access == access)
            names.insert(row.name);
    }
    return names;
}

TEST(AccessFile, GrantsWhatTheMethodTableSays)
{
    json groups = json::parse(content_of(router / "usr/share/rpcd/acl.d/celmux.json"));
    const struct {
        const char *group;
        const char *permission;
        Access access;
    } rows[] = {
        {"celmux-read", "read", Access::read},
        {"celmux-write", "write", Access::write},
        {"celmux-at-passthrough", "write", Access::passthrough},
    };
    ASSERT_EQ(groups.size(), std::size(rows));
    for (const auto &row : rows) {
        json group = groups[row.group];
        ASSERT_EQ(group.size(), 2u) << row.group;
        EXPECT_TRUE(group["description"].is_string());
        ASSERT_EQ(group[row.permission].size(), 1u) << row.group;
        ASSERT_EQ(group[row.permission]["ubus"].size(), 1u) << row.group;
        std::vector<std::string> listed = group[row.permission]["ubus"]["celmux"];
        EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()), methods_of(row.access)) << row.group;
        EXPECT_EQ(listed.size(), methods_of(row.access).size()) << row.group;
    }
    EXPECT_EQ(methods_of(Access::passthrough), std::set<std::string>{"at_passthrough"});
}

// The names say what changes nothing; a method of another name that is to be readable needs a look first.
TEST(AccessFile, OnlyQueriesAreReadable)
{
    for (const std::string &name : methods_of(Access::read))
        EXPECT_TRUE(name.starts_with("get_") || name == "check_connectivity") << name;
}

TEST(MethodsPage, SaysWhatTheMethodTableSays)
{
    const std::map<int, std::string> types = {
        {BLOBMSG_TYPE_STRING, "String"}, {BLOBMSG_TYPE_INT32, "Integer"}, {BLOBMSG_TYPE_ARRAY, "Array"}};
    const char *const accesses[] = {"read", "write", "passthrough"};
    std::string expected, shown;
    for (const MethodRow &row : method_rows) {
        std::string name = row.name, access = accesses[static_cast<int>(row.access)];
        expected += "| [" + name + "](#" + name + ") | " + access + " | " + row.description + " |\n";
    }
    for (const MethodRow &row : method_rows) {
        std::string description = row.description;
        description[0] = static_cast<char>(toupper(description[0]));
        expected += "## " + std::string(row.name) + "\n" + description +
                    ". Access: " + accesses[static_cast<int>(row.access)] + ".\n";
        std::set<std::string> arguments;
        for (int i = 0; i < row.policy_count; i++)
            arguments.insert(std::string(row.policy[i].name) + " " + types.at(row.policy[i].type) + "\n");
        for (const std::string &argument : arguments)
            expected += argument;
    }

    std::istringstream page(content_of(SOURCE_DIR "/docs/methods.md"));
    std::set<std::string> arguments;
    auto end_table = [&] {
        for (const std::string &argument : arguments)
            shown += argument;
        arguments.clear();
    };
    bool in_arguments = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("| argument |"))
            in_arguments = true;
        else if (!line.starts_with("|"))
            in_arguments = false;
        if (in_arguments && !line.starts_with("| argument |") && !line.starts_with("| ---")) {
            std::istringstream cells(line);
            std::string name, type;
            std::getline(cells, name, '|');
            std::getline(cells, name, '|');
            std::getline(cells, type, '|');
            arguments.insert(name.substr(1) + type.substr(1, type.size() - 2) + "\n");
        } else {
            end_table();
        }
        if (line.starts_with("| [") || line.starts_with("## ") || line.find(". Access: ") != std::string::npos)
            shown += line + "\n";
    }
    EXPECT_EQ(shown, expected);
}

} // namespace
