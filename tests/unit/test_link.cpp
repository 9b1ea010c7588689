// Port, listener and sender on a pseudo-terminal; response processor and request API on the real queues.

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <set>
#include <thread>
#include <unistd.h>

#include "at_listener.h"
#include "at_sender.h"
#include "captured_log.h"
#include "config.h"
#include "files.h"
#include "final_results.h"
#include "indications.h"
#include "link.h"
#include "message_index.h"
#include "port.h"
#include "queues.h"
#include "request.h"
#include "resp_processor.h"
#include "waiting.h"

#include <cjson/cJSON.h>

// The indication handler has tests of its own; here it only shows what it was given.
static std::atomic<unsigned> indicated; // blocks so far

void handle_indications(std::string_view)
{
    indicated++;
}

namespace {

void init_once()
{
    static bool done = [] {
        pool_queue_init(&at_tx_queue, sizeof(TextElem), 32);
        pool_queue_init(&at_rx_queue, sizeof(TextElem), 32);
        pool_queue_init(&resp_queue, sizeof(TextElem), 32);
        pool_queue_init(&incomming_sms_queue, sizeof(int32_t), 127);
        return init_stop_event() == 0;
    }();
    ASSERT_TRUE(done);
}

void drop_all(PoolQueue *queue)
{
    while (TextElem *element = static_cast<TextElem *>(pool_queue_try_pop(queue))) {
        free(element->text);
        pool_queue_release(queue, element);
    }
}

// A pseudo-terminal behind a link, like the simulated modem's, and the settings that point to it.
struct LinkTest : testing::Test {
    int master = -1, slave = -1;
    std::string link = testing::TempDir() + "tty_" + std::to_string(getpid());

    void SetUp() override
    {
        init_once();
        clear_log();
        indicated = 0;
        running.store(1);
        link_free();
        link_init(false);
        settings_g = {link.c_str(), PORT_SERIAL, 115200, 8, 0, 0, 0, 5, 1};
        open_port_pair();
    }
    void TearDown() override
    {
        close_port_pair();
        for (PoolQueue *queue : {&at_tx_queue, &at_rx_queue, &resp_queue})
            drop_all(queue);
        settings_g.port = nullptr;
    }
    void open_port_pair()
    {
        char name[64];
        ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
        termios raw;
        tcgetattr(slave, &raw);
        cfmakeraw(&raw);
        tcsetattr(slave, TCSANOW, &raw);
        ASSERT_EQ(symlink(name, link.c_str()), 0);
    }
    void close_port_pair()
    {
        unlink(link.c_str());
        for (int *fd : {&master, &slave}) {
            if (*fd != -1)
                close(*fd);
            *fd = -1;
        }
    }
    void type(const std::string &text)
    {
        ASSERT_EQ(write(master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string read_master(size_t length)
    {
        std::string text;
        pollfd in = {master, POLLIN, 0};
        while (text.size() < length && poll(&in, 1, 5000) == 1) {
            char chunk[512];
            ssize_t got = read(master, chunk, sizeof chunk);
            if (got <= 0)
                break;
            text.append(chunk, static_cast<size_t>(got));
        }
        return text;
    }
    static TextElem take(PoolQueue *queue, uint32_t timeout_ms = 5000)
    {
        int64_t deadline = monotonic_ms() + timeout_ms;
        while (monotonic_ms() < deadline) {
            if (TextElem *element = static_cast<TextElem *>(pool_queue_pop_for(queue, 100))) {
                TextElem copy = *element;
                pool_queue_release(queue, element);
                return copy;
            }
        }
        return {nullptr, 0};
    }
    static std::string take_text(PoolQueue *queue)
    {
        TextElem element = take(queue);
        std::string text = element.text ? element.text : "(nothing)";
        free(element.text);
        return text;
    }
};

struct Thread {
    std::thread thread;

    explicit Thread(void *(*body)(void *)) : thread([body] { body(nullptr); }) {}
    ~Thread()
    {
        if (thread.joinable()) {
            running.store(0);
            for (PoolQueue *queue : {&at_tx_queue, &at_rx_queue, &resp_queue})
                pool_queue_wake(queue);
            thread.join();
        }
    }
};

// The stop descriptor stays readable once stop_all was called, so it is called once, at the end of everything.
struct StopAtEnd : testing::Environment {
    void TearDown() override
    {
        running.store(1);
        stop_all();
    }
};
[[maybe_unused]] testing::Environment *const stop_at_end = testing::AddGlobalTestEnvironment(new StopAtEnd);

// Wakes a listener that waits for input, so that it sees that `running` is cleared.
struct Listening : Thread {
    int master;

    explicit Listening(int fd) : Thread(at_listener), master(fd) {}
    ~Listening()
    {
        running.store(0);
        (void)!write(master, ".", 1);
        thread.join();
    }
};

TEST_F(LinkTest, ConfiguresASerialLine)
{
    // A pseudo-terminal takes every flag but PARENB and the character size.
    const struct {
        Settings settings;
        int result;
        tcflag_t set, clear;
        const char *message;
    } rows[] = {
        {{"", 1, 115200, 8, 0, 0, 0, 5, 1}, 0, CS8 | CREAD | CLOCAL, CSTOPB | PARENB | CRTSCTS, ""},
        {{"", 1, 9600, 7, 1, 2, 2, 5, 1}, 0, CSTOPB | PARODD | CRTSCTS, 0, ""},
        {{"", 1, 9600, 8, 2, 4, 1, 5, 1}, 0, CSTOPB | CMSPAR, PARODD | CRTSCTS, ""},
        {{"", 1, 128000, 8, 0, 0, 0, 5, 1}, -1, CS8, PARENB, "OS does not currently support custom bauds"},
        {{"", 1, 9600, 9, 0, 0, 0, 5, 1}, -1, 0, 0, "invalid char len: 9"},
        {{"", 1, 9600, 8, 3, 0, 0, 5, 1}, -1, 0, 0, "invalid stop bit: 3"},
        {{"", 1, 9600, 8, 0, 5, 0, 5, 1}, -1, 0, 0, "invalid parity: 5"},
    };
    termios line;
    ASSERT_EQ(tcgetattr(slave, &line), 0);
    line.c_cflag |= CMSPAR;
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &line), 0);
    ASSERT_EQ(tcgetattr(slave, &line), 0);
    const tcflag_t unknown = CMSPAR & ~line.c_cflag; // to QEMU's user mode
    for (const auto &row : rows) {
        clear_log();
        EXPECT_EQ(config_serial_port(slave, &row.settings), row.result) << row.message;
        EXPECT_EQ(log_count(row.message, 3), *row.message ? 1 : 0);
        ASSERT_EQ(tcgetattr(slave, &line), 0);
        EXPECT_EQ(line.c_cflag & row.set, row.set & ~unknown) << row.message;
        EXPECT_EQ(line.c_cflag & row.clear, 0u) << row.message;
        EXPECT_EQ(line.c_cc[VMIN], row.message[0] ? line.c_cc[VMIN] : 0);
    }
    EXPECT_EQ(config_serial_port(-1, &rows[0].settings), -1);
    int no_tty = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(config_serial_port(no_tty, &rows[0].settings), -1);
    EXPECT_EQ(log_count("from tcgetattr", 3), 1);
    close(no_tty);
}

TEST_F(LinkTest, ListenerHandsOnBurstsAndSurvivesRubbish)
{
    Listening listener(master);
    type("\r\nOK\r\n");
    TextElem first = take(&at_rx_queue);
    EXPECT_STREQ(first.text, "\r\nOK\r\n");
    EXPECT_EQ(first.size, 1024u);
    free(first.text);
    EXPECT_EQ(t_listener_ready.load(), 1);

    type(std::string("\0abc\0def\r\n", 10));
    EXPECT_EQ(take_text(&at_rx_queue), "abcdef\r\n");

    type(std::string("\xff\xfe\x01\x80", 4));
    EXPECT_EQ(take_text(&at_rx_queue), "\xff\xfe\x01\x80");
}

TEST_F(LinkTest, ListenerCutsALineWithoutEndAtItsLimit)
{
    Listening listener(master);
    constexpr size_t TOTAL = 1 << 20;
    std::thread feeder([&] {
        std::string block(4096, 'x');
        for (size_t sent = 0; sent < TOTAL; sent += block.size())
            (void)!write(master, block.data(), block.size());
    });
    size_t got = 0;
    while (got < TOTAL) {
        TextElem burst = take(&at_rx_queue);
        ASSERT_NE(burst.text, nullptr);
        EXPECT_LE(burst.size, 66u * 1024);
        got += strlen(burst.text);
        free(burst.text);
    }
    feeder.join();
    EXPECT_EQ(got, TOTAL);
}

// Puts a text on its way to the port, as the link does with what belongs to no command.
void queue_text(const char *text)
{
    TextElem *element = static_cast<TextElem *>(pool_queue_try_alloc(&at_tx_queue));
    *element = {strdup(text), static_cast<uint32_t>(strlen(text)), 0};
    pool_queue_push(&at_tx_queue, element);
}

TEST_F(LinkTest, ListenerAndSenderReopenAPortThatComesBack)
{
    Thread sender(at_sender);
    std::thread listener([] { at_listener(nullptr); });
    queue_text("AT\r");
    EXPECT_EQ(read_master(3), "AT\r");
    type("one");
    EXPECT_EQ(take_text(&at_rx_queue), "one");

    close_port_pair();
    queue_text("LOST\r");
    while (log_count("lost, waiting for modem up!", 3) < 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    queue_text("AT+KEPT\r");
    open_port_pair();
    EXPECT_EQ(read_master(8), "AT+KEPT\r");
    while (log_count("Reopen Serial port", 6) < 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    type("two");
    EXPECT_EQ(take_text(&at_rx_queue), "two");
    running.store(0);
    type(".");
    listener.join();
}

TEST_F(LinkTest, SenderWritesInOrderAndMasksSecretsInItsLog)
{
    Thread sender(at_sender);
    for (const char *text : {"AT+CSQ\r", "AT+CPIN=\"1234\"\r", "AT+COPS=?"}) // without its end this is not the scan
        queue_text(text);
    EXPECT_EQ(read_master(31), "AT+CSQ\rAT+CPIN=\"1234\"\rAT+COPS=?");
    EXPECT_EQ(g_scan_began.load(), 0);
    queue_text(SCAN_COMMAND);
    EXPECT_EQ(read_master(10), "AT+COPS=?\r");
    EXPECT_EQ(g_scan_began.load(), 1);
    while (log_count("Send: ") < 4)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(log_count("Send: AT+CPIN=\"****\"", 6), 1);
    EXPECT_EQ(log_count("1234"), 0);
    end_scan();
}

TEST_F(LinkTest, AnOpenFailureEndsTheThreadsOnly)
{
    settings_g.port = "/nonexistent/tty";
    Thread listener(at_listener), sender(at_sender);
    listener.thread.join();
    sender.thread.join();
    EXPECT_EQ(log_count("error 2 from open /nonexistent/tty: No such file or directory", 3), 2);
    EXPECT_EQ(log_count("thread exit gracefully", 6), 2);
}

// The response processor between a queue that the test fills and the request API.
struct AnswerTest : LinkTest {
    void SetUp() override
    {
        LinkTest::SetUp();
        json_g = cJSON_Parse(R"({"results": ["OK", "ERROR", null, "+CME ERROR", "+CMS ERROR"]})");
    }
    void TearDown() override
    {
        free_results();
        cJSON_Delete(json_g);
        json_g = nullptr;
        LinkTest::TearDown();
        end_scan();
    }
    static void burst(const std::string &text)
    {
        TextElem *element = static_cast<TextElem *>(pool_queue_try_alloc(&at_rx_queue));
        *element = {strdup(text.c_str()), 1024};
        pool_queue_push(&at_rx_queue, element);
    }
    // The next command, as a modem takes it that answers the marks with which the link gets in step.
    static std::string next_command(const std::atomic<bool> *done = nullptr)
    {
        for (;;) {
            if (done && *done)
                return "";
            TextElem element = take(&at_tx_queue, done ? 10 : 5000);
            if (done && !element.text)
                continue;
            std::string command = element.text ? element.text : "(nothing)";
            free(element.text);
            if (element.text && !link_may_write(element.number))
                continue;
            static const std::set<std::string> MARKS = {"AT+CGMR?\r", "AT+CGMI?\r", "AT+GMM?\r", "AT+CMGF?\r"};
            if (MARKS.contains(command))
                burst("\r\n" + command.substr(2, command.size() - 4) + ": \"x\"\r\n\r\nOK\r\n");
            else if (command != LINK_ESCAPE)
                return command;
        }
    }
};

// A modem that does what the script says and then goes on answering marks until its end.
struct Modem {
    std::atomic<bool> done{false};
    std::thread thread;

    template<typename Script>
    explicit Modem(Script script)
        : thread([this, script] {
              script();
              (void)AnswerTest::next_command(&done);
          })
    {
    }
    explicit Modem(std::vector<std::string> bursts)
        : Modem([bursts = std::move(bursts)] {
              (void)AnswerTest::next_command();
              for (const std::string &text : bursts)
                  AnswerTest::burst(text);
          })
    {
    }
    ~Modem()
    {
        done = true;
        thread.join();
    }
};

TEST_F(AnswerTest, RequestTakesTheAnswerUpToItsFinalResultCode)
{
    Thread processor(resp_processor);
    const struct {
        std::vector<std::string> bursts;
        const char *expected;
        const char *answer; // null: none
    } rows[] = {
        {{"\r\n+CCID: 1\r\n\r\nOK\r\n\r\n+CGEV: ME PDN ACT 1\r\n"}, "+CCID:", "\r\n+CCID: 1\r\n\r\nOK\r\n"},
        {{"\r\n+CC", "ID: 1\r\n", "\r\nOK\r", "\n"}, "+CCID:", "\r\n+CCID: 1\r\n\r\nOK\r\n"},
        {{"\r+CCID: 1\r\rOK\r"}, "+CCID:", "\r+CCID: 1\r\rOK\r"},
        {{"\r\nOK\r\n"}, "+CCID:", nullptr},
        {{"\r\n+CME ERROR: 3\r\n"}, "+CCID:", "\r\n+CME ERROR: 3\r\n"},
        {{"\r\nOK\r\n"}, nullptr, "\r\nOK\r\n"},
        {{"\r\n+CCID: 1\r\n"}, "+CCID:", nullptr}, // the final result code never comes
        {{"\r\n+CCID: 1\r\n\r\nOK see you\r\n"}, nullptr, nullptr},
        {{"\r\n> "}, nullptr, "\r\n> "},
        {{std::string(300 * 1024, 'x') + "\r\nOK\r\n"}, nullptr, nullptr},
        {{}, nullptr, nullptr},
    };
    for (const auto &row : rows) {
        char *answer = nullptr;
        Modem modem(row.bursts);
        EXPECT_EQ(request("AT+CCID\r", &answer, row.expected, 0, row.answer ? 5000 : 500), row.answer ? 0 : -1);
        EXPECT_STREQ(answer, row.answer);
        free(answer);
    }
    EXPECT_EQ(log_count("longer than 262144 bytes", 3), 1);
    EXPECT_EQ(log_count("Unsolicited message: \r\n+CGEV"), 1);
}

TEST_F(AnswerTest, CommandsThatNobodyWaitsForWaitTheirTurn)
{
    Thread processor(resp_processor);
    Modem modem([] {
        EXPECT_EQ(next_command(), "AT+X?\r");
        for (int i = 0; i < 20; i++)
            EXPECT_EQ(at_enqueue("AT+Y\r", 0), i < 16 ? 0 : -1);
        EXPECT_EQ(at_tx_queue.msg_count.load(), 0);
        burst("\r\n+X: 1\r\n\r\nOK\r\n");
        for (int i = 0; i < 16; i++) {
            EXPECT_EQ(next_command(), "AT+Y\r");
            burst("\r\nOK\r\n");
        }
    });
    char *answer = nullptr;
    EXPECT_EQ(request("AT+X?", &answer, "+X:", 1, 5000), 0);
    free(answer);
    EXPECT_EQ(log_count("too many commands wait, refused: AT+Y"), 4);
}

TEST_F(AnswerTest, AScanEndsWithAnyFinalResultCode)
{
    Thread processor(resp_processor);
    for (const char *text :
         {"\r\nOK\r\n", "\r\n+COPS: ,,(0-4),(0-2)\r\n\r\nOK\r\n", "\r\n+COPS:\r\n\r\nOK\r\n",
          "\r\n+COPS:(2,\"One\",\"One\",\"26201\",7),,(0-4),(0-2)\r\n\r\nOK\r\n", "\r\n+CME ERROR: 3\r\n"}) {
        ASSERT_EQ(at_enqueue(SCAN_COMMAND, 0), 0);
        EXPECT_EQ(next_command(), SCAN_COMMAND);
        char *answer = nullptr;
        EXPECT_EQ(request("AT\r", &answer, nullptr, 0, 3000), -1);
        burst(text);
        for (int i = 0; i < 500 && g_scanning.load(); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(g_scanning.load(), 0) << text;
    }
    EXPECT_EQ(log_count("modem busy", 6), 5);
}

TEST_F(AnswerTest, ExecRetrySendsUntilOk)
{
    Thread processor(resp_processor);
    Modem modem([] {
        for (const char *text : {"\r\nERROR\r\n", "\r\nERROR\r\n", "\r\n+X: 1\r\n\r\nOK\r\n"}) {
            EXPECT_EQ(next_command(), "AT+X?\r");
            burst(text);
        }
    });
    char *answer = nullptr;
    EXPECT_EQ(exec_retry("AT+X?", &answer, 1, 3), 0);
    EXPECT_STREQ(answer, "\r\n+X: 1\r\n\r\nOK\r\n");
    free(answer);
}

TEST_F(AnswerTest, TheMessageExchangeWritesPduAndEndBehindThePrompt)
{
    Thread processor(resp_processor);
    const struct {
        const char *prompt, *result;
        int sent;
    } rows[] = {
        {"\r\n> ", "\r\n+CMGS: 5\r\n\r\nOK\r\n", 0},
        {"\r\n> ", "\r\n+CMGS: 5\r\n\r\nOK\r\n", 0}, // the same reference again
        {"\r\n+CIEV: \"ERROR\",1\r\n\r\n> ", "\r\n+CMGS: 6\r\n\r\nOK\r\n", 0},
        {"\r\n> ", "\r\n+CMS ERROR: 38\r\n", -1},
        {"\r\n+CMS ERROR: 310\r\n", nullptr, -1},
    };
    for (const auto &row : rows) {
        Modem modem([&] {
            EXPECT_EQ(next_command(), "AT+CMGS=14\r");
            burst(row.prompt);
            if (!row.result)
                return;
            EXPECT_EQ(next_command(), "0011");
            EXPECT_EQ(next_command(), "\x1a");
            burst(row.result);
        });
        EXPECT_EQ(send_message_request("0011", 14, 20000), row.sent); // a refusal is not waited for
    }
    EXPECT_FALSE(link_silent());
}

TEST_F(AnswerTest, AnIndexIsNotQueuedTwiceAndAFullQueueAsksForASweep)
{
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(sms_index_enqueue(7), 0);
        EXPECT_EQ(sms_index_enqueue(7), 0);
        int32_t *element = static_cast<int32_t *>(pool_queue_try_pop(&incomming_sms_queue));
        ASSERT_NE(element, nullptr);
        EXPECT_EQ(*element, 7);
        EXPECT_EQ(pool_queue_try_pop(&incomming_sms_queue), nullptr);
        pool_queue_release(&incomming_sms_queue, element);
        sms_index_done(7);
    }
    EXPECT_EQ(sms_index_enqueue(-1), -1);
    EXPECT_EQ(g_sms_sweep.load(), 0);
    for (int32_t i = 0; i < 128; i++)
        EXPECT_EQ(sms_index_enqueue(i), 0);
    EXPECT_EQ(sms_index_enqueue(200), -1);
    EXPECT_EQ(g_sms_sweep.load(), 1);
    EXPECT_EQ(log_count("failed to alloc sms_index", 3), 1);
    while (int32_t *element = static_cast<int32_t *>(pool_queue_try_pop(&incomming_sms_queue))) {
        sms_index_done(*element);
        pool_queue_release(&incomming_sms_queue, element);
    }
}

} // namespace
