// Every answer of the simulated modem carries the number of the command that it answers, so an answer that reaches the wrong caller, or
// half of one, is seen. The daemon's link threads run in this process.
//
// CELMUX_EXCHANGES sets their number, CELMUX_LATE the bounds of a late answer in ms ("500 10000") with CELMUX_TIMEOUT for the requests.

#include <atomic>
#include <cjson/cJSON.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <regex>
#include <sms.h>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "at_listener.h"
#include "at_sender.h"
#include "captured_log.h"
#include "celmux.h"
#include "config.h"
#include "final_results.h"
#include "indications.h"
#include "link_step.h"
#include "process.h"
#include "request.h"
#include "resp_processor.h"
#include "waiting.h"

// Of the indications only those that matter here: prompt and submission result go to the request, and the scan's result ends it.
void handle_indications(TextElem *block)
{
    std::string text = block->text;
    if (text.find("+COPS: (") != std::string::npos)
        end_scan();
    if (text.find("\n>") != std::string::npos || text.find("+CMGS:") != std::string::npos)
        (void)resp_enqueue(block);
}

namespace {

int number_from(const char *name, int standard)
{
    const char *value = getenv(name);
    return value ? atoi(value) : standard;
}

struct Counts {
    std::atomic<int> right{0}, wrong{0}, halved{0}, timed_out{0}, sent{0}, not_sent{0};
};

struct Accepted {
    std::string command;
    std::string answer;
};

struct WhoseAnswer : testing::Test {
    std::string folder = "whose_answer_" + std::to_string(getpid());
    std::string link = folder + "/port";
    Process modem;
    std::vector<std::thread> threads;
    std::mutex mutex; // guards accepted
    std::vector<Accepted> accepted;
    Counts counts;

    void SetUp() override
    {
        std::filesystem::create_directory(folder);
        clear_log();
        running.store(1);
        link_out_of_step(LinkFault::restarted); // another modem than the last test's
        for (std::atomic<uint8_t> *flag : {&t_listener_ready, &t_sender_ready, &t_processor_ready, &g_scanning, &g_scan_began})
            flag->store(0);
        for (PoolQueue *queue : {&at_tx_queue, &at_rx_queue, &resp_queue, &incomming_sms_queue})
            ASSERT_EQ(pool_queue_init(queue, sizeof(TextElem), 32), 0);
        ASSERT_EQ(init_stop_event(), 0);
        json_g = cJSON_Parse(R"({"results": ["OK", "ERROR", "+CME ERROR", "+CMS ERROR", "NO CARRIER"]})");
        settings_g.port = link.c_str();
        settings_g.burst_gap_ms = 20;
    }
    void TearDown() override
    {
        stop_all();
        for (std::thread &thread : threads)
            thread.join();
        modem.stop();
        free_results();
        free_configuration();
        for (PoolQueue *queue : {&at_tx_queue, &at_rx_queue, &resp_queue}) {
            while (TextElem *element = static_cast<TextElem *>(pool_queue_try_pop(queue)))
                free(element->text);
        }
        for (PoolQueue *queue : {&at_tx_queue, &at_rx_queue, &resp_queue, &incomming_sms_queue})
            pool_queue_destroy(queue);
        if (!getenv("CELMUX_KEEP_ROOTS"))
            std::filesystem::remove_all(folder);
    }
    void start(const std::string &troubles)
    {
        std::ofstream(folder + "/profile.json") << R"({"seed": 5, "modem": {"behaviour": {"latency_ms": 1, "scan_ms": 300}}, "troubles": [)"
                                                << troubles << "]}";
        ProcessOptions options;
        options.error_path = folder + "/modem.err";
        modem = Process::start({BIN_DIR "/modemsim", "--link", link, "--profile", folder + "/profile.json", "--record",
                                folder + "/record", "--serial-numbers"},
                               options);
        ASSERT_TRUE(wait_for([&] { return access(link.c_str(), F_OK) == 0; })) << modem.errors();
        for (void *(*body)(void *) : {resp_processor, at_listener, at_sender})
            threads.emplace_back([body] { body(nullptr); });
        ASSERT_TRUE(wait_for([] { return t_listener_ready && t_sender_ready && t_processor_ready; }));
        char *answer = nullptr;
        ASSERT_EQ(exec_retry("ATE0", &answer, 1, 10), 0);
        free(answer);
    }
    // The command that the modem recorded under each number.
    std::map<long, std::string> recorded()
    {
        std::map<long, std::string> commands;
        std::ifstream file(folder + "/record");
        for (std::string line; std::getline(file, line);) {
            std::istringstream words(line);
            long ms, number;
            words >> ms >> number;
            std::string command;
            std::getline(words, command);
            commands.emplace(number, command.substr(1));
        }
        return commands;
    }
    void exchange(std::mt19937 &random, const std::string &name, uint32_t timeout_ms)
    {
        static std::atomic<int> counter{0};
        std::string tag = name + std::to_string(counter++);
        const struct {
            std::string command;
            const char *expected;
        } kinds[] = {
            {"AT+CSQ;+CGDCONT=3,\"IP\",\"" + tag + "\"", "+CSQ:"},
            {"AT+CREG?;+CGDCONT=3,\"IP\",\"" + tag + "\"", "+CREG:"},
            {"AT+CGDCONT=3,\"IP\",\"" + tag + "\"", nullptr},
            {"AT+CGDCONT=4,\"IPV6\",\"" + tag + "\"", nullptr},
        };
        if (random() % 25 == 0) {
            (void)at_enqueue(("AT+CGDCONT=5,\"IP\",\"" + tag + "\"").c_str(), 1);
            return;
        }
        if (random() % 50 == 0) {
            send(tag, timeout_ms);
            return;
        }
        const auto &kind = kinds[random() % std::size(kinds)];
        char *answer = nullptr;
        if (request(kind.command.c_str(), &answer, kind.expected, 1, timeout_ms) != 0 || !answer) {
            counts.timed_out++;
            if (g_scanning.load())
                usleep(10000); // refused at once: a caller that comes again soon
            return;
        }
        std::lock_guard guard(mutex);
        accepted.push_back({kind.command, answer});
        free(answer);
    }
    void send(const std::string &tag, uint32_t timeout_ms)
    {
        sms_pdu *list = nullptr;
        ASSERT_EQ(encode_pdu("+491701234567", 0, tag.c_str(), static_cast<int>(tag.size()), &list, 0), 0);
        (send_message_request(list->pdu, list->length, timeout_ms) == 0 ? counts.sent : counts.not_sent)++;
        free_list(&list);
    }
    void judge()
    {
        std::map<long, std::string> commands = recorded();
        static const std::regex serial("\\+SN: (\\d+)\r\n");
        for (const Accepted &each : accepted) {
            std::smatch match;
            bool final = each.answer.ends_with("OK\r\n") || each.answer.find("ERROR") != std::string::npos ||
                         each.answer.ends_with("NO CARRIER\r\n");
            if (!std::regex_search(each.answer, match, serial) || !final) {
                if (++counts.halved < 5)
                    printf("%s got half: %s\n", each.command.c_str(), each.answer.c_str());
            }
            else if (commands[std::stol(match[1])] == each.command + "\\r")
                counts.right++;
            else if (++counts.wrong < 5)
                printf("%s got: %s\nto %s\n", each.command.c_str(), each.answer.c_str(), commands[std::stol(match[1])].c_str());
        }
    }
    void run_mix(int exchanges, const std::string &late, uint32_t timeout_ms)
    {
        start(R"({"kind": "late", "busy": true, "ms": [)" + late + R"(], "probability": 0.02},
            {"kind": "never", "probability": 0.02},
            {"kind": "twice", "ms": [0, 40], "probability": 0.02},
            {"kind": "split", "parts": 0, "ms": [0, 5], "probability": 0.03},
            {"kind": "split", "parts": 3, "ms": [0, 5], "probability": 0.1},
            {"kind": "unsolicited", "where": "before", "text": "+CTZV: +8,1", "probability": 0.04},
            {"kind": "unsolicited", "where": "inside", "text": "+CGEV: ME PDN ACT 1", "probability": 0.04},
            {"kind": "unsolicited", "where": "after", "text": "+CTZV: +8,1", "probability": 0.01},
            {"kind": "holds", "text": "+NOTE: OK", "probability": 0.03},
            {"kind": "holds", "text": "+NOTE: ERROR", "probability": 0.02},
            {"kind": "error", "probability": 0.02},
            {"kind": "prompt_late", "ms": [)" + late + R"(], "probability": 0.3})");
        for (int clients : {1, 2, 4}) {
            std::vector<std::thread> callers;
            for (int client = 0; client < clients; client++) {
                callers.emplace_back([&, client] {
                    std::mt19937 random(static_cast<unsigned>(client * 100 + clients));
                    std::string name = "c" + std::to_string(clients) + "x" + std::to_string(client) + "n";
                    for (int i = 0; i < exchanges / 3 / clients; i++)
                        exchange(random, name, timeout_ms);
                });
            }
            for (std::thread &caller : callers)
                caller.join();
            // Callers of the next round come while the scan runs.
            (void)at_enqueue(SCAN_COMMAND, 0);
        }
        judge();
        printf("%d right, %d wrong, %d halved, %d without an answer (%d refused during a scan); messages %d sent, %d not; %u commands, %u marks, %u late answers dropped\n",
               counts.right.load(), counts.wrong.load(), counts.halved.load(), counts.timed_out.load(), log_count("modem busy"), counts.sent.load(),
               counts.not_sent.load(), link_statistics.commands.load(), link_statistics.marks.load(),
               link_statistics.late_answers.load());
    }
};

TEST_F(WhoseAnswer, NobodyGetsAnotherCallersAnswerOrHalfOfOne)
{
    const char *late = getenv("CELMUX_LATE");
    std::string bounds = late ? late : "300 900";
    bounds.replace(bounds.find(' '), 1, ", ");
    run_mix(number_from("CELMUX_EXCHANGES", 300), bounds, static_cast<uint32_t>(number_from("CELMUX_TIMEOUT", 250)));
    EXPECT_EQ(counts.halved.load(), 0);
    EXPECT_EQ(counts.wrong.load(), 0);
    EXPECT_GT(counts.right.load(), 0);
}

TEST_F(WhoseAnswer, AModemThatAnswersInTimeNeverSeesAMark)
{
    start("");
    std::mt19937 random(1);
    for (int i = 0; i < 200; i++)
        exchange(random, "h", 5000);
    judge();
    EXPECT_EQ(counts.wrong + counts.halved + counts.timed_out + counts.not_sent, 0);
    int marks = 0;
    for (const auto &[number, command] : recorded())
        marks += command == "AT+CGMI?\\r";
    EXPECT_EQ(marks, 1); // the one at the start, where nothing is known of the modem
}

// How long after a silence until a caller gets a right answer; the silence itself is the modem's.
TEST_F(WhoseAnswer, ASilentModemIsAskedAgainAtOnceWhenItSpeaks)
{
    for (int silence_ms : {500, number_from("CELMUX_SILENCE", 1500)}) {
        if (threads.empty())
            start(R"({"kind": "late", "busy": true, "ms": 500, "command": "AT+CGDCONT=8"},
                     {"kind": "late", "busy": true, "ms": )" + std::to_string(number_from("CELMUX_SILENCE", 1500)) +
                  R"(, "command": "AT+CGDCONT=9"})");
        char *answer = nullptr;
        int64_t began = monotonic_ms();
        EXPECT_EQ(request(silence_ms == 500 ? "AT+CGDCONT=8" : "AT+CGDCONT=9", &answer, nullptr, 1, 100), -1);
        int64_t right_after = 0;
        while (right_after == 0 && monotonic_ms() - began < silence_ms + 10000) {
            if (request("AT+CSQ", &answer, "+CSQ:", 1, 300) == 0 && answer)
                right_after = monotonic_ms() - began;
            free(answer);
            answer = nullptr;
        }
        printf("silent for %d ms: a right answer %lld ms after the command\n", silence_ms, static_cast<long long>(right_after));
        EXPECT_GE(right_after, silence_ms - 50);
        EXPECT_LT(right_after, silence_ms + 5000);
    }
}
} // namespace
