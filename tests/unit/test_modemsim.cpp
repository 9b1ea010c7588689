// Runs the courses of tests/data/modemsim: what a simulated modem is told and what it says.
//
//   profile JSON    another modem, as modemsim/README.md has profiles; echo is off and messages are sent at once
//   > TEXT          a command line; the carriage return is added. Bytes are written as \r \n \xNN.
//   >> TEXT         bytes as they are
//   wait MS         time passes; nothing else makes it pass
//   ctl WORDS       a control command; its answer is shown when it is refused
//   state POINTER   shows a part of the modem's state
//   < TEXT          what came since the last line; a CR LF is written as ~
//
// With CELMUX_KEEP_OUTPUT in the environment the outputs are written anew instead of being compared.
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>

#include "modemsim/control.h"
#include "modemsim/engine.h"

namespace {

// A simulated modem without a port and without a clock: time passes only where a test says so.
struct Rig {
    std::string out;
    modemsim::Engine engine{modemsim::Host{[this](std::string_view bytes) { out += bytes; }, [](bool) {},
                                           [](int64_t, uint64_t, std::string_view) {}}};
    modemsim::Control control{engine};

    // Starts with a JSON patch of the state; echo is off unless the patch says otherwise.
    explicit Rig(const std::string &profile = "{}")
    {
        engine.modem.state.settings.echo = false;
        engine.modem.state.behaviour.sms_send_ms = 0;
        control.load_profile(profile);
        engine.start();
        run(0);
    }

    void run(int64_t ms)
    {
        engine.timers.run_until(engine.timers.now() + ms);
    }

    // What comes back within `wait_ms` of bytes that are written.
    std::string send(const std::string &bytes, int64_t wait_ms = 0)
    {
        out.clear();
        engine.input(bytes);
        run(wait_ms);
        return out;
    }

    // Likewise of a command line, which gets its carriage return here.
    std::string at(const std::string &line, int64_t wait_ms = 0)
    {
        return send(line + "\r", wait_ms);
    }

    nlohmann::json ctl(const std::string &line)
    {
        return nlohmann::json::parse(control.run(line));
    }

    nlohmann::json state(const std::string &pointer)
    {
        return ctl("state " + pointer).at("state");
    }
};

std::string shown(const std::string &bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i++) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (bytes.compare(i, 2, "\r\n") == 0) {
            text += '~';
            i++;
        } else if (c < ' ' || c > '~') {
            text += fmt::format("\\x{:02x}", c);
        } else {
            text += bytes[i];
        }
    }
    return text;
}

std::string bytes_of(const std::string &text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        if (text.compare(i, 2, "\\x") == 0) {
            bytes += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else if (text.compare(i, 2, "\\r") == 0 || text.compare(i, 2, "\\n") == 0) {
            bytes += text[++i] == 'r' ? '\r' : '\n';
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

// Carries out one line and returns what is to be seen of it.
std::string carry_out(std::optional<Rig> &rig, const std::string &line)
{
    const std::string word = line.substr(0, line.find(' ')), rest = line.substr(std::min(line.size(), word.size() + 1));
    rig->out.clear();
    if (word == "profile") {
        rig.emplace(rest);
        rig->out.clear();
    } else if (word == ">") {
        rig->send(bytes_of(rest) + "\r");
    } else if (word == ">>") {
        rig->send(bytes_of(rest));
    } else if (word == "wait") {
        rig->run(std::stoll(rest));
    } else if (word == "state") {
        return rig->state(rest).dump();
    } else if (word == "ctl") {
        nlohmann::json answer = rig->ctl(rest);
        return answer["ok"] == true ? shown(rig->out) : answer.dump();
    }
    return shown(rig->out);
}

class Course : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(Course, GoesAsItIsWritten)
{
    std::ifstream file(GetParam());
    std::optional<Rig> rig(std::in_place);
    std::string written, gone, line;
    while (std::getline(file, line)) {
        written += line + "\n";
        if (line.starts_with("< "))
            continue;
        gone += line + "\n";
        std::string output = carry_out(rig, line);
        if (!output.empty())
            gone += "< " + output + "\n";
    }
    if (getenv("CELMUX_KEEP_OUTPUT"))
        std::ofstream(GetParam()) << gone;
    else
        EXPECT_EQ(gone, written);
}

std::vector<std::filesystem::path> courses()
{
    return {std::filesystem::directory_iterator(TEST_DATA_DIR "/modemsim"), std::filesystem::directory_iterator()};
}
INSTANTIATE_TEST_SUITE_P(Of, Course, testing::ValuesIn(courses()),
                         [](const auto &each) { return each.param.stem().string(); });

const std::string ok = "\r\nOK\r\n";
const std::string csq = "\r\n+CSQ: 27,99\r\n\r\nOK\r\n";

std::string troubled(const std::string &rules)
{
    return R"({"seed":7,"troubles":[)" + rules + "]}";
}

TEST(ModemsimTroubles, PutLinesAndBytesInside)
{
    Rig rig(troubled(R"({"kind":"holds","text":"OK or ERROR"})"));
    std::string held = rig.at("AT+CSQ");
    size_t place = held.find("OK or ERROR\r\n");
    ASSERT_NE(place, held.npos);
    EXPECT_GT(place, 0u);
    EXPECT_EQ(held.erase(place, 13), csq);

    Rig noisy(troubled(R"({"kind":"rubbish","where":"inside","bytes":40})"));
    EXPECT_EQ(noisy.at("AT+CSQ").size(), csq.size() + 40);
}

TEST(ModemsimTroubles, PutReportsIntoTheMiddleOfALine)
{
    const std::string report = "\r\nNO CARRIER\r\n";
    Rig anywhere(troubled(R"({"kind":"unsolicited","where":"anywhere","text":"NO CARRIER","ms":5})"));
    bool in_a_line = false;
    for (int i = 0; i < 50; i++) {
        std::string all = anywhere.at("AT+CSQ", 10);
        size_t place = all.find(report);
        ASSERT_NE(place, all.npos);
        in_a_line = in_a_line || all[place - 1] != '\n';
        EXPECT_EQ(all.erase(place, report.size()), csq);
    }
    EXPECT_TRUE(in_a_line);
}

std::string course(const std::string &profile, uint64_t seed)
{
    Rig rig(profile);
    rig.engine.troubles.seed(seed);
    std::string all;
    for (int i = 0; i < 200; i++) {
        rig.engine.input("AT+CSQ\rAT+CMGL=4\r");
        rig.run(50);
        all += rig.out + "|";
        rig.out.clear();
    }
    return all;
}

std::string read_file(const std::filesystem::path &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(ModemsimProfiles, AreRepeatableBySeed)
{
    std::string mixed = read_file(SOURCE_DIR "/modemsim/profiles/mixed.json");
    std::string once = course(mixed, 3);
    EXPECT_EQ(once, course(mixed, 3));
    EXPECT_NE(once, course(mixed, 4));
}

TEST(ModemsimProfiles, AllLoadAndRun)
{
    int loaded = 0;
    for (const auto &entry : std::filesystem::directory_iterator(SOURCE_DIR "/modemsim/profiles")) {
        SCOPED_TRACE(entry.path());
        Rig rig(read_file(entry.path()));
        for (int i = 0; i < 60; i++) {
            rig.engine.input("AT+CSQ\r");
            rig.run(1000);
        }
        EXPECT_EQ(rig.control.event_error(), "");
        loaded++;
    }
    EXPECT_GT(loaded, 20);
}

TEST(ModemsimProfiles, RefuseWhatTheyDoNotKnow)
{
    for (const char *profile :
         {"nonsense", R"({"modemm":{}})", R"({"modem":{"sim":{"state":"burnt"}}})", R"({"modem":{"kept":{"imx":1}}})",
          R"({"troubles":[{"kind":"late","sm":1}]})", R"({"events":[{"do":"dance"}]})"}) {
        Rig rig;
        EXPECT_THROW(rig.control.load_profile(profile), std::invalid_argument) << profile;
    }
}

TEST(Modemsim, SurvivesWhateverComesIn)
{
    Rig rig;
    std::string noise;
    for (int i = 0; i < 200000; i++)
        noise += static_cast<char>(i * 7919 >> 3);
    rig.send(noise + "\x1b\r");
    EXPECT_EQ(rig.send(std::string(10000, 'A') + "\r"), "\r\nERROR\r\n");
    for (const char *line :
         {"AT+=", "AT+CGDCONT=99999999999,\"\",", "AT+CMGD=-1", "AT\"", "AT+CPIN=\"", "AT&", "AT+CMGS=", "AT;;"})
        EXPECT_NE(rig.at(line), "") << line;
    EXPECT_EQ(rig.at("AT"), ok);
}

} // namespace
