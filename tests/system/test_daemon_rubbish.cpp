// Whatever the modem sends, the daemon lives, stays small and answers the next call.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "daemon.h"

static constexpr const char *imei_key = "imei";

class DaemonRubbish : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
        imei = daemon.call("get_imei").data.value(imei_key, "");
        ASSERT_EQ(imei.size(), 15U);
    }

    void control(const std::string &line)
    {
        nlohmann::json answer = daemon.modem().control(line);
        ASSERT_TRUE(answer.value("ok", false)) << line << ": " << answer.dump();
    }

    // What still stands in the port may cost some calls.
    void expect_service(const char *when)
    {
        SCOPED_TRACE(when);
        std::string last;
        EXPECT_TRUE(wait_for([&] {
            BusAnswer answer = daemon.call("get_imei");
            last = answer.text;
            return answer.result() == 0 && answer.data.value(imei_key, "") == imei;
        })) << last;
        EXPECT_TRUE(daemon.celmuxd().running());
    }

    // The greatest size so far in KiB, or 0.
    long peak_memory()
    {
        std::ifstream file("/proc/" + std::to_string(daemon.celmuxd().pid()) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("VmHWM:")) {
                return std::stol(line.substr(6));
            }
        }
        return 0;
    }

    PrivateRoot root;
    Daemon daemon{root};
    std::string imei;
};

// Any bytes but those of `spared`, with the escapes of modemsim's control.
static std::string random_bytes(size_t count, unsigned seed, const std::string &spared)
{
    static const char digits[] = "0123456789abcdef";
    std::mt19937 random(seed);
    std::string text;
    while (count > 0) {
        unsigned byte = random() % 256;
        if (spared.find(static_cast<char>(byte)) == std::string::npos) {
            text += std::string("\\x") + digits[byte / 16] + digits[byte % 16];
            count--;
        }
    }
    return text;
}

TEST_F(DaemonRubbish, UnaskedInput)
{
    const struct {
        const char *name;
        std::string line;
    } rows[] = {
        {"binary", "raw " + random_bytes(15000, 1, "")},
        {"binary without line ends", "raw " + random_bytes(15000, 2, "\r\n")},
        {"1 MB without a line end", "flood bytes=1048576"},
        {"10000 lines", "flood lines=10000"},
        {"10000 empty lines", "flood lines=10000 text="},
        {"results nobody asked for", "flood lines=3000 text=OK"},
        {"indications with much behind them", "flood lines=300 text=+CMTI:" + std::string(3000, '9')},
        {"NULs alone", R"(raw \x00\x00\x00\x00)"},
        {"NULs inside a line", R"(raw \r\n+CMTI:\x00\x00\x00,\x001\r\n\x00OK\r\n)"},
        {"a NUL at the 1023rd byte", "raw " + std::string(1022, 'x') + R"(\x00\r\nOK\r\n)"},
        {"half a line", R"(raw \r\n+CGSN:12)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        control(row.line);
        expect_service("afterwards");
    }
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(peak_memory(), 32 * 1024);
#endif
    EXPECT_EQ(daemon.stop().code, 0);
}

TEST_F(DaemonRubbish, AnswersOfAnotherShape)
{
    const struct {
        const char *name;
        const char *trouble;
    } rows[] = {
        {"echo on", R"({"kind": "echo", "every": 1})"},
        {"rubbish before", R"({"kind": "rubbish", "bytes": 500, "where": "before", "command": "AT+CGSN", "times": 1})"},
        {"much before", R"({"kind": "endless", "bytes": 100000, "answer": true, "command": "AT+CGSN"})"},
        {"a report inside", R"({"kind": "unsolicited", "text": "+CGEV: ME PDN ACT 1", "where": "inside"})"},
        {"twice", R"({"kind": "twice", "ms": 5})"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        control(std::string("trouble ") + row.trouble);
        expect_service("with it");
        control("trouble clear");
        expect_service("without it");
    }
}

constexpr const char *in_two_bursts = R"(trouble {"kind": "split", "at": 14, "ms": 20, "command": "AT+CGSN"})";

TEST(DaemonBurstGap, JoinsAnAnswerInSeveralBursts)
{
    PrivateRoot root;
    nlohmann::json configuration = nlohmann::json::parse(root.read_file("/etc/ril.json"));
    configuration["settings"]["burst_gap_ms"] = 200;
    root.write_file("/etc/ril.json", configuration.dump());
    Daemon daemon(root);
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    for (const char *trouble :
         {in_two_bursts, R"(trouble {"kind": "split", "parts": 0, "ms": 2, "command": "AT+CGSN"})"}) {
        ASSERT_TRUE(daemon.modem().control(trouble).value("ok", false));
        EXPECT_EQ(daemon.call("get_imei").result(), 0) << trouble;
        ASSERT_TRUE(daemon.modem().control("trouble clear").value("ok", false));
    }
}
