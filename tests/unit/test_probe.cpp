#include "probe.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "config.h"
#include "temporary_folder.h"

static const std::string IMEI = "\r\n+CGSN: 860000000000009\r\n\r\nOK\r\n";
static const std::string MODEL = "\r\n+GMM: \"FM160\",\"x\"\r\n\r\nOK\r\n";
static const std::string MAKER = "\r\n+CGMI: \"Fibocom Wireless Inc.\"\r\n\r\nOK\r\n";
static const std::string HARDWARE = "ATI9\r\n\"Hardware version: V1.0.6\"\r\n\r\nOK\r\n";
static const std::string SOFTWARE = "ATI8\r\n\"81600.0000\"\r\n\r\nOK\r\n";

TEST(ModemInfoLine, HoldsWhatTheModemTold)
{
    struct {
        std::string answers;
        std::string line; // empty: no line
    } rows[] = {
        {IMEI, "860000000000009"},
        {IMEI + MODEL + MAKER + HARDWARE + SOFTWARE, "860000000000009,FM160,Fibocom Wireless Inc.,V1.0.6,81600.0000"},
        {"+CGSN: \"860000000000009\"\r\n" + MODEL, "860000000000009,FM160"},
        {"+CEREG: 1\r\n" + IMEI + "+CTZV: \"+8\",1\r\n" + MODEL +
             "ATI9\r\n+CTZV: \"+8:1\"\r\n\"Hardware version: V1.0.6\"\r\n",
         "860000000000009,FM160,V1.0.6"},
        {IMEI + "+GMM: \"FM160\r\n\r\nOK\r\n" + MAKER, ""},
        {IMEI + "ATI9\r\n\"V1.0.6\"\r\n\r\nOK\r\nATI8\r\n\"81600:0\"\r\n", "860000000000009,81600:0"},
        {IMEI + MAKER + SOFTWARE, "860000000000009,Fibocom Wireless Inc.,81600.0000"},
        {MODEL + MAKER, ""},
        {"", ""},
        {"+CGSN: 8600", ""},
        {"+CGSN: \r\n", ""},
        {IMEI + "+GMM: \"FM160", ""},
        {IMEI + "+GMM:", ""},
        {IMEI + "+CGMI: \"Fibo", ""},
        {IMEI + "ATI9\r\n\"V1.0.6", ""},
        {IMEI + "ATI9\r\n\"x: V1", ""},
        {IMEI + "ATI9\r\n\"x:", ""},
        {IMEI + "ATI8\r\n\"816", "860000000000009"},
        {MODEL + IMEI, "860000000000009"}, // each value is looked for behind the one before
        {"+CGSN: " + std::string(255, '1') + "\r", std::string(255, '1')},
        {"+CGSN: " + std::string(256, '1') + "\r", ""},
        {"+CGSN: " + std::string(254, '1') + "\r+GMM: \"y\"", ""},
        {std::string("x\0", 2) + IMEI, ""},
    };
    for (const auto &row : rows) {
        std::vector<char> answers(row.answers.begin(), row.answers.end()); // exact size
        char line[MODEM_INFO_SIZE] = "";
        EXPECT_EQ(modem_info_line(std::string_view(answers.data(), answers.size()), line), !row.line.empty())
            << row.answers;
        if (!row.line.empty()) {
            EXPECT_EQ(line, row.line);
        }
    }
}

// A character device whose other end a test plays.
class Probe : public testing::Test {
protected:
    void SetUp() override
    {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        grantpt(master);
        unlockpt(master);
        slave = open(ptsname(master), O_RDWR | O_NOCTTY);
        termios raw;
        tcgetattr(slave, &raw);
        cfmakeraw(&raw);
        tcsetattr(slave, TCSANOW, &raw);
        ASSERT_EQ(symlink(ptsname(master), device.c_str()), 0);
    }
    void TearDown() override
    {
        close(slave);
        close(master);
    }
    // Answers each line with what `answer` gives for it, while the device is probed.
    void probe(const std::function<std::string(const std::string &)> &answer)
    {
        std::atomic<bool> done{false};
        std::thread modem([&] {
            std::string line;
            char c;
            pollfd in = {master, POLLIN, 0};
            while (!done) {
                if (poll(&in, 1, 20) <= 0 || read(master, &c, 1) != 1)
                    continue;
                line += c;
                if (c != '\n')
                    continue;
                lines.push_back(line);
                const std::string text = answer(line);
                EXPECT_EQ(write(master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
                line.clear();
            }
        });
        probe_device(device.c_str(), file.c_str());
        done = true;
        modem.join();
    }
    TemporaryFolder folder;
    const std::string file = folder / "info", device = folder / "modem";
    std::vector<std::string> lines;
    int master, slave;
};

static bool no_child_left()
{
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST_F(Probe, AsksFiveQuestionsAndWritesTheLine)
{
    folder.write("info", "older and longer content, to be replaced");
    probe([](const std::string &line) {
        return line == "AT+CGSN=1\n"  ? IMEI
               : line == "AT+GMM?\n"  ? MODEL
               : line == "AT+CGMI?\n" ? MAKER
               : line == "ATI9\n"     ? HARDWARE
                                      : SOFTWARE;
    });
    EXPECT_EQ(lines, (std::vector<std::string>{"AT+CGSN=1\n", "AT+GMM?\n", "AT+CGMI?\n", "ATI9\n", "ATI8\n"}));
    EXPECT_EQ(folder.content("info"),
              std::string("860000000000009,FM160,Fibocom Wireless Inc.,V1.0.6,81600.0000") + '\0');
    EXPECT_TRUE(no_child_left());
}

TEST_F(Probe, AnAnswerWithoutImeiLeavesTheFile)
{
    folder.write("info", "older");
    probe([](const std::string &) { return "\r\nERROR\r\n"; });
    EXPECT_EQ(folder.content("info"), "older");
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(Probe, ADeviceThatNeverStopsTalkingIsLimited)
{
    probe([](const std::string &line) {
        return line == "AT+CGSN=1\n" ? IMEI + std::string(2000, 'x') : std::string(300, 'y');
    });
    EXPECT_EQ(folder.content("info"), std::string("860000000000009") + '\0');
    EXPECT_TRUE(no_child_left());
}

// Output is stopped, so that every write blocks.
TEST_F(Probe, ADeviceThatBlocksCostsTwoSecondsAtMost)
{
    tcflow(slave, TCOOFF);
    const auto start = std::chrono::steady_clock::now();
    probe_device(device.c_str(), file.c_str());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    tcflow(slave, TCOON);
    pollfd in = {master, POLLIN, 0};
    EXPECT_EQ(poll(&in, 1, 0), 0); // the writer did block
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(no_child_left());
}

TEST_F(Probe, NothingIsMadeInThePlaceOfADevice)
{
    folder.write("plain", "+CGSN: 1\r");
    for (const std::string &path : {folder / "missing", folder / "plain", folder.path})
        probe_device(path.c_str(), file.c_str());
    EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(folder.content("plain"), "+CGSN: 1\r");
}

TEST_F(Probe, APortThatIsUnsetOrMissingIsNotProbed)
{
    settings_g.port = nullptr;
    probe_modem_info();
    settings_g.port = "/nonexistent/port";
    probe_modem_info();
    settings_g.port = nullptr;
    EXPECT_TRUE(no_child_left());
}
