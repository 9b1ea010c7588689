#include "indications.h"

#include <cstring>

#include "fake_files.h"
#include "fake_shell.h"
#include "link.h"
#include "message_index.h"
#include "modem_test.h"
#include "resp_processor.h"
#include "stored_messages.h"
#include "uci_access.h"

static std::vector<int> indexes;
static size_t index_room;

// Other bodies for the response processor, which calls the unit under test.
std::atomic<uint8_t> g_sms_sweep{0};
void *resp_processor(void *)
{
    return nullptr;
}
void sms_index_done(int32_t) {}
int sms_index_enqueue(int32_t index)
{
    if (indexes.size() == index_room)
        return -1;
    indexes.push_back(index);
    return 0;
}

static const std::string HELLO = "0891947122575555F0040C919471103254760004423051906235400548656C6C6F";
static const std::string PART_1 = "0891947122575555F0440C9194711032547600084230519062354008050003770201D83D";
static const std::string PART_2 = "0891947122575555F0440C9194711032547600084230519062354008050003770202DE00";
static const std::string NUMBER = "0891947122575555F00405812143F500004230519062354002E834";

class Indications : public ModemTest<fake_files, fake_shell> {
protected:
    void SetUp() override
    {
        uci_access_set_folders("/nowhere", "/nowhere");
        indexes.clear();
        index_room = 128;
        forget_store();
        start_message_store();
        g_sms_sweep = 0;
        save_messages(MESSAGE_FILE);
        fake_files.calls = 0;
        g_scanning = g_scan_began = 0;
    }
    void TearDown() override
    {
        forget_store();
    }

    static Strings on_disk()
    {
        forget_store();
        start_message_store();
        return stored();
    }
};

TEST_F(Indications, AnnouncedMessages)
{
    handle_indications("\r\n+CMTI: \"SM\",7\r\n\r\n+CMTI: \"SM\"\r\n+CMTI: \"SM\",  0\n");
    EXPECT_EQ(indexes, (std::vector<int>{7, 0}));
    EXPECT_EQ(log_count("Enqueue message index: 7", LOG_INFO), 1);
    EXPECT_EQ(log_count("token: +CMTI: \"SM\"", LOG_INFO), 3);
    index_room = 2;
    handle_indications("+CMTI: \"SM\",9");
    EXPECT_EQ(log_count("Enqueue message index: 9"), 0);
}

TEST_F(Indications, MessagesInAnswersToOthersAreStored)
{
    handle_indications("\r\n+CMGR: 0,,29\r\n" + HELLO + "\r\n\r\nOK\r\n");
    EXPECT_EQ(g_sms_sweep, 0);
    EXPECT_TRUE(messages_on_disk());
    EXPECT_EQ(log_count("\"sender\":\t\"491701234567\"", LOG_INFO), 1);
    EXPECT_EQ(on_disk(), (Strings{"491701234567 Hello"}));
    handle_indications("+CMGR: 1,,29\r\n" + NUMBER + "\r\n\r\nOK\r\n");
    EXPECT_EQ(on_disk().size(), 2u);

    int calls = fake_files.calls;
    handle_indications("\r\n+CMGL: 1,1,,23\r\n" + HELLO + "\r\n+CMGL: 2,1,,23\r\n" + PART_2 +
                       "\r\n+CMGL: 3,1,,23\r\nrubbish\r\n" + "+CMGL: 5,2,,23\r\n" + NUMBER +
                       "\r\n+CMGL: 4,1,\"A,B\",23\r\n+CMTI: \"SM\",9\r\n" + PART_1 + "\r\n\r\nOK\r\n");
    EXPECT_EQ(fake_files.calls - calls, 3) << "one open, one write, one sync";
    EXPECT_EQ(g_sms_sweep, 1) << "the requester clears the places";
    EXPECT_TRUE(fake_link.sent.empty());
    EXPECT_EQ(on_disk(),
              (Strings{"491701234567 Hello", "12345 hi", "491701234567 2=\xDE" + std::string(1, '\0') + " 1=\xD8= +"}));
}

TEST_F(Indications, OnlyTheLineBehindAHeaderIsAMessage)
{
    handle_indications(HELLO + "\r\n+CMGR: 0,,1\r\nOK\r\n" + HELLO + "\r\n+CMT: ,23\r\n" + HELLO + "\r\n" + HELLO +
                       "\r\n+CDS: 25\r\n" + HELLO + "\r\n+CMGR: \"REC READ\",\"+49\",,\"\"\r\n" + HELLO);
    EXPECT_EQ(stored(), Strings{});
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CNMA\r"}));
    EXPECT_EQ(fake_files.calls, 0);
}

TEST_F(Indications, SimReady)
{
    handle_indications("+SIM READY\r\n");
    EXPECT_EQ(fake_link.sent,
              (Strings{"AT+CPMS=\"SM\",\"SM\",\"SM\"\r", "AT+CMGF=0\r", "AT+CNMI=2,1\r", "AT+CPMS?\r"}));
    EXPECT_EQ(g_sms_sweep, 1);
}

TEST_F(Indications, PacketDataContext)
{
    struct Row {
        const char *line;
        int family;
        const char *apn;
        int updated;
    } rows[] = {
        {"+CGDCONT: 1,\"IPV4V6\",\"internet\",\"10.9.99.100,32.1\",0,0", 3, "internet", 1},
        {"+CGDCONT: 1,\"IPV6\",\"a,b\",\"\"", 2, "a,b", 1}, // quoted text ends at its quote
        {"+CGDCONT: 1,\"IP\", \"auto\"", 0, "auto", 1},
        {"+CGDCONT: 1,\"PPP\",\"\",", -1, "", 1},
        {"+CGDCONT: 1,\"IP\"", 0, "", 1},
        {"+CGDCONT: 1,\"IP\",\"cut", 0, "", 1},
        {"+CGDCONT: 1,\"", -1, "", 1},
        {"+CGDCONT: 1,", 7, "before", 1},
        {"+CGDCONT: 2,\"IP\",\"ims\"", 7, "before", 0},
        {"+CGDCONT: 11,\"IP\",\"ims\"", 7, "before", 0},
    };
    for (const Row &row : rows) {
        ip_family_updated = 0;
        g_ip_family = 7;
        strcpy(g_apn, "before");
        handle_indications("\r\n" + std::string(row.line) + "\r\n\r\nOK\r\n");
        EXPECT_EQ(g_ip_family, row.family) << row.line;
        EXPECT_STREQ(g_apn, row.apn) << row.line;
        EXPECT_EQ(ip_family_updated, row.updated) << row.line;
    }
    handle_indications("+CGDCONT: 1,\"IP\",\"" + std::string(100, 'x') + "\"");
    EXPECT_EQ(g_apn, std::string(63, 'x'));
    EXPECT_EQ(log_count("Current APN: internet", LOG_INFO), 1);
    EXPECT_EQ(log_count("Current IP Family: 3", LOG_INFO), 1);
}

TEST_F(Indications, FullStorage)
{
    for (const char *line : {"+CPMS: \"SM\",49,50,\"SM\",50,50", "+CPMS: 50,50,50,50,50,50", "+CPMS: \"SM\"",
                             "+CPMS: \"SM\",", "+CPMS: \"SM\",50", "+CPMS: \"ME\",5,5"})
        handle_indications(line);
    EXPECT_EQ(g_sms_sweep, 0);
    handle_indications("+CPMS: \"ME\",1,9,\"SM\",50,50,\"SM\",49,50");
    EXPECT_EQ(g_sms_sweep, 1) << "what is on it is fetched";
    EXPECT_EQ(log_count("SIM sms storage full.", LOG_ERR), 1);
}

TEST_F(Indications, ScanResult)
{
    const std::string start = "uci delete modem.scan.network";
    const std::string end = "; ubus send modem '{\"event\":\"scan_complete\"}'";
    auto entry = [](const char *name) { return "; uci add_list modem.scan.network='" + std::string(name) + "'"; };
    struct Row {
        std::string line, entries;
    } rows[] = {
        {"+COPS: (1,\"A\",\"A\",\"46015\",7),(2,\"B\",\"B\",\"46000\",12),(1,\"C\",\"C\",\"46001\",2),,(0,1,2,3,4,5),(0,1,2)",
         entry("E-UTRAN") + entry("NR") + entry("UTRAN")},
        {"+COPS: (1,\"A (x),\",\"A\",\"46015\",7),(7),(1,\"open\",7", entry("E-UTRAN")},
        {"+COPS: (", ""},
        {"+COPS: (),,(0,1,2)", ""},
        {"+COPS: ('`reboot`,$(reboot),11),",
         entry("UTRAN")}, // "reboot" is no number, and nothing of the line reaches the shell
    };
    for (const Row &row : rows) {
        fake_shell.reset();
        g_scanning = 1;
        g_scan_began = 1;
        handle_indications("\r\n" + row.line + "\r\n\r\nOK\r\n");
        EXPECT_EQ(fake_shell.commands, (Strings{start + row.entries + end})) << row.line;
        EXPECT_EQ(g_scanning + g_scan_began, 0);
    }
    std::string many = "+COPS: (1,7)";
    for (int i = 0; i < 1000; i++)
        many += ",(1,12)";
    fake_shell.reset();
    handle_indications(many);
    EXPECT_TRUE(fake_shell.commands.at(0).ends_with(entry("NR") + end)) << "however many, the event is sent";
}
