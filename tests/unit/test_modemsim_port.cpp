#include "modemsim/control_server.h"
#include "modemsim/pty_port.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

class ModemsimPort : public testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/test_modemsim.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        link = folder + "/port";
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder);
    }

    static std::string read_some(int descriptor, size_t size)
    {
        std::string text;
        char buffer[4096];
        pollfd waiting = {descriptor, POLLIN, 0};
        while (text.size() < size && poll(&waiting, 1, 5000) > 0) {
            ssize_t got = read(descriptor, buffer, sizeof buffer);
            if (got <= 0)
                break;
            text.append(buffer, static_cast<size_t>(got));
        }
        return text;
    }

    std::string folder, link;
};

TEST_F(ModemsimPort, CarriesBytesUnchangedForWhoeverOpensIt)
{
    modemsim::PtyPort port(link);
    port.open();
    for (int i = 0; i < 2; i++) {
        int user = open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(user, 0);
        const std::string bytes("AT\r\n\x03\x1a\0\xff", 8);
        ASSERT_EQ(write(user, bytes.data(), bytes.size()), 8);
        EXPECT_EQ(read_some(port.descriptor(), 8), bytes);
        port.write(bytes);
        EXPECT_EQ(read_some(user, 8), bytes);
        close(user);
    }
}

TEST_F(ModemsimPort, NeverBlocksWhenNobodyReads)
{
    modemsim::PtyPort port(link);
    port.open();
    for (int i = 0; i < 100; i++)
        port.write(std::string(100000, 'x'));
    EXPECT_TRUE(port.wants_to_write());
    EXPECT_GT(port.dropped(), 5000000u);
}

TEST_F(ModemsimPort, TheLinkIsThereExactlyWhileThePortIs)
{
    modemsim::PtyPort port(link);
    port.open();
    std::string first = std::filesystem::read_symlink(link);
    EXPECT_EQ(first, port.path());
    int user = open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(user, 0);
    port.close();
    EXPECT_FALSE(std::filesystem::is_symlink(link));
    char byte = 0;
    EXPECT_LE(read(user, &byte, 1), 0);
    close(user);
    port.open();
    EXPECT_TRUE(std::filesystem::exists(link));
}

TEST_F(ModemsimPort, AnswersItsControlSocket)
{
    std::string path = folder + "/control";
    modemsim::ControlServer server(path, [](std::string_view line) { return "got " + std::string(line); });
    std::atomic<bool> done = false;
    std::thread serving([&] {
        while (!done) {
            std::vector<pollfd> waiting;
            server.add_to(waiting);
            poll(waiting.data(), waiting.size(), 20);
            server.serve(waiting);
        }
    });
    EXPECT_EQ(modemsim::control_request(path, "one"), "got one");
    std::string big(200000, 'y');
    EXPECT_EQ(modemsim::control_request(path, big), "got " + big);
    done = true;
    serving.join();
    EXPECT_THROW(modemsim::control_request(folder + "/nobody", "x"), std::system_error);
}

/// The program as its own process, with its standard output on a pipe.
struct Program {
    pid_t id = -1;
    int output = -1;

    explicit Program(std::vector<std::string> words)
    {
        words.insert(words.begin(), BIN_DIR "/modemsim");
        std::vector<char *> arguments;
        for (std::string &word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        int ends[2];
        if (pipe(ends) != 0)
            return;
        id = fork();
        if (id == 0) {
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        close(ends[1]);
        output = ends[0];
    }
    ~Program()
    {
        close(output);
    }
    int wait() const
    {
        int status = 0;
        waitpid(id, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST_F(ModemsimPort, TheProgramServesUntilItIsTerminated)
{
    std::string path = folder + "/control";
    Program program({"--link", link, "--control", path, "--record", folder + "/record", "--serial-numbers"});
    std::string printed = read_some(program.output, 1);
    ASSERT_TRUE(std::filesystem::exists(link));
    EXPECT_EQ(printed, std::filesystem::read_symlink(link).string() + "\n");
    int user = open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(write(user, "AT\r", 3), 3);
    const std::string expected = "AT\r\r\n+SN: 1\r\n\r\nOK\r\n";
    EXPECT_EQ(read_some(user, expected.size()), expected);
    close(user);
    EXPECT_EQ(modemsim::control_request(path, "state /commands/count"), R"({"ok":true,"state":1})");
    kill(program.id, SIGTERM);
    EXPECT_EQ(program.wait(), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(link));
    EXPECT_FALSE(std::filesystem::exists(path));
    std::string recorded;
    std::getline(std::ifstream(folder + "/record"), recorded);
    EXPECT_TRUE(recorded.ends_with(" 1 AT\\r")) << recorded;
}

TEST_F(ModemsimPort, TheProgramRefusesABadProfile)
{
    std::ofstream(folder + "/bad.json") << R"({"troubles":[{"kind":"worse"}]})";
    Program program({"--link", link, "--profile", folder + "/bad.json"});
    EXPECT_EQ(program.wait(), 1);
    EXPECT_FALSE(std::filesystem::is_symlink(link));
}

} // namespace
