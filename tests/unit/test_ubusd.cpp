// The broker against raw bytes: what it answers, and that nobody else notices a client that misbehaves.
#include <cstdint>
#include <fcntl.h>
#include <numeric>
#include <span>
#include <sys/resource.h>
#include <vector>

#include "broker_process.h"
#include "ubusd_broker.h"

namespace {

using bytes = std::vector<uint8_t>;

bytes from_hex(const std::string &text)
{
    bytes result;
    std::string digits;
    for (char c : text) {
        if (c != ' ')
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        result.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return result;
}

std::string to_hex(std::span<const uint8_t> data)
{
    std::string text;
    for (uint8_t byte : data)
        text += std::string(1, "0123456789abcdef"[byte >> 4]) + "0123456789abcdef"[byte & 15];
    return text;
}

std::string hex32(uint32_t value)
{
    char text[9];
    snprintf(text, sizeof text, "%08x", value);
    return text;
}

std::string text(std::string spaced)
{
    std::erase(spaced, ' ');
    return spaced;
}

// A client made of bytes only.
struct raw_client {
    int fd = -1;
    uint32_t id = 0;

    explicit raw_client(bool greeted = true)
    {
        fd = connect_unix("bus.sock");
        EXPECT_GE(fd, 0);
        if (!greeted)
            return;
        bytes hello = receive();
        EXPECT_EQ(hello.size(), 12u);
        EXPECT_EQ(to_hex(hello).substr(0, 8), "00000000");
        EXPECT_EQ(to_hex(hello).substr(16), "00000004");
        id = blob_read_be32(hello.data() + 4);
        EXPECT_GT(id, 1024u);
    }
    ~raw_client()
    {
        close(fd);
    }
    raw_client(const raw_client &) = delete;
    raw_client &operator=(const raw_client &) = delete;

    void send_bytes(std::span<const uint8_t> data) const
    {
        (void)!::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    }
    void send_hex(const std::string &text) const
    {
        send_bytes(from_hex(text));
    }

    // The next message; empty when the connection is closed (or nothing comes for 10 s).
    bytes receive() const
    {
        bytes message(12);
        if (recv(fd, message.data(), 12, MSG_WAITALL) != 12)
            return {};
        message.resize(8 + (blob_read_be32(message.data() + 8) & 0xffffff));
        const size_t rest = message.size() - 12;
        const bool whole = rest == 0 || recv(fd, message.data() + 12, rest, MSG_WAITALL) == static_cast<ssize_t>(rest);
        return whole ? message : bytes{};
    }
    // The next message is this one.
    void expect(const std::string &message, const char *what = "") const
    {
        EXPECT_EQ(to_hex(receive()), text(message)) << what;
    }
    // The broker answers a ping.
    void expect_answer() const
    {
        send_hex("0003 0007 00000000 00000004");
        expect("0002 0007 00000000 00000004");
        expect("0001 0007 00000000 0000000c 01000008 00000000");
    }

    // Whether the broker has closed the connection; reads on until it has.
    bool closed() const
    {
        uint8_t space[65536];
        ssize_t got;
        while ((got = recv(fd, space, sizeof space, 0)) > 0) {
        }
        return got == 0 || errno == ECONNRESET;
    }

    // Adds the object "a" with the method "m"; its id.
    uint32_t add_object() const
    {
        send_hex("0006 0001 00000000 0000001c 02000006 61000000 06000010 8200000c 00036d6f 64000000");
        bytes ids = receive();
        EXPECT_EQ(ids.size(), 28u);
        expect("0001 0001 00000000 0000000c 01000008 00000000");
        return ids.size() < 20 ? 0 : blob_read_be32(ids.data() + 16);
    }
};

class Ubusd : public BrokerTest {
protected:
    // The broker still serves a new client.
    void expect_alive()
    {
        raw_client().expect_answer();
    }
};

TEST_F(Ubusd, AnswersByteForByte)
{
    raw_client client;
    client.send_hex("0004 0009 00000000 0000000c 02000006 61000000"); // LOOKUP "a"
    client.expect("0001 0009 00000000 0000000c 01000008 00000004");

    client.send_hex("0006 000a 00000000 0000001c 02000006 61000000 06000010 8200000c 00036d6f 64000000");
    bytes ids = client.receive();
    ASSERT_EQ(ids.size(), 28u);
    const std::string object = to_hex(ids).substr(32, 8), type = to_hex(ids).substr(48, 8);
    EXPECT_EQ(to_hex(ids), text("0002 000a 00000000 00000014 03000008" + object + "05000008" + type));
    client.expect("0001 000a 00000000 0000000c 01000008 00000000");

    client.send_hex("0004 000b 00000000 00000004"); // LOOKUP of all
    client.expect("0002 000b 00000000 0000002c 02000006 61000000 03000008" + object + "05000008" + type +
                  "06000010 8200000c 00036d6f 64000000");
    client.expect("0001 000b 00000000 0000000c 01000008 00000000");
}

TEST_F(Ubusd, RefusesWithAStatus)
{
    raw_client client, other;
    const std::string object = hex32(other.add_object());
    struct {
        const char *what;
        std::string type, blob;
        int status;
    } const rows[] = {
        {"call without object", "05", "0000000c 04000006 6d000000", 2},
        {"call without method", "05", "0000000c 03000008" + object, 2},
        {"call of a missing object", "05", "00000014 03000008 00000400 04000006 6d000000", 4},
        {"object id of a wrong size", "05", "00000014 03000006 00000000 04000006 6d000000", 2},
        {"path without a signature", "06", "0000000c 02000006 62000000", 2},
        {"signature of something else", "06", "00000018 02000006 62000000 0600000c 8500000c 00000000", 2},
        {"removal of another's object", "07", "0000000c 03000008" + object, 6},
        {"event without data", "05", "00000018 03000008 00000001 04000009 73656e64 00000000", 2},
        {"subscription without target", "08", "00000004", 2},
        {"notification of another's object", "0a", "00000014 03000008" + object + "04000006 6d000000", 6},
        {"monitor", "0b", "00000004", 8},
        {"unknown message", "40", "00000004", 1},
    };
    for (auto &row : rows) {
        client.send_hex("00" + row.type + "0001 00000000" + row.blob);
        client.expect("0001 0001 00000000 0000000c 01000008 0000000" + std::to_string(row.status), row.what);
    }
}

TEST_F(Ubusd, DropsMalformedClientsOnly)
{
    raw_client owner;
    owner.add_object();
    struct {
        const char *what;
        const char *bytes;
    } const rows[] = {
        {"version", "0103 0001 00000000 00000004"},
        {"blob shorter than its header", "0003 0001 00000000 00000003"},
        {"blob with an id", "0003 0001 00000000 03000004"},
        {"extended blob", "0003 0001 00000000 80000004"},
        {"too large", "0003 0001 00000000 00100001"},
        {"attribute past the end", "0004 0001 00000000 0000000c 020000ff 61000000"},
        {"attribute shorter than its header", "0004 0001 00000000 0000000c 02000003 61000000"},
        {"rest of a few bytes", "0004 0001 00000000 0000000e 02000006 61000000 0000"},
    };
    for (auto &row : rows) {
        raw_client client;
        client.send_hex(row.bytes);
        EXPECT_TRUE(client.closed()) << row.what;
    }
    owner.expect_answer();
    expect_alive();
}

TEST_F(Ubusd, TakesTheLargestMessage)
{
    raw_client client;
    bytes ping = from_hex("0003 0001 00000000 00100000 070ffffc");
    ping.resize(8 + 0x100000, 0x55);
    client.send_bytes(ping);
    ping[1] = 2;
    EXPECT_EQ(client.receive(), ping);
}

TEST_F(Ubusd, TakesMessagesInAnyPieces)
{
    raw_client client;
    const bytes two = from_hex("0003 0001 00000000 00000004 0003 0002 00000000 0000000c 02000006 61000000");
    for (uint8_t byte : two)
        client.send_bytes({&byte, 1});
    client.expect("0002 0001 00000000 00000004");
    client.receive();
    client.expect("0002 0002 00000000 0000000c 02000006 61000000");
    raw_client cut; // goes away in the middle of a message
    cut.send_bytes(std::span(two).first(17));
    expect_alive();
}

TEST_F(Ubusd, OnlyAnObjectsOwnerAnswersForIt)
{
    raw_client owner, caller, victim;
    const std::string object = hex32(owner.add_object());
    owner.send_hex("0002 0001" + hex32(victim.id) + "00000004");
    caller.send_hex("0005 0102" + object + "00000014 03000008" + object + "04000006 6d000000");
    victim.send_hex("0001 0102" + hex32(caller.id) + "00000014 01000008 00000000 03000008" + object);
    victim.expect_answer();
    caller.expect_answer();
}

TEST_F(Ubusd, DropsAClientThatDoesNotRead)
{
    raw_client deaf;
    bytes ping = from_hex("0003 0001 00000000 00080000 0707fffc");
    ping.resize(8 + 0x80000);
    timeval limit = {10, 0};
    setsockopt(deaf.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int sent = 0;
    while (sent < 1000 && send(deaf.fd, ping.data(), ping.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(ping.size()))
        sent++;
    EXPECT_LT(sent, 1000) << "half a gigabyte was taken from a client that reads nothing";
    EXPECT_GE(sent, 4);
    expect_alive();
}

TEST_F(Ubusd, ABusyOwnerIsNotDroppedForItsCallers)
{
    raw_client owner, caller;
    const std::string object = hex32(owner.add_object());
    bytes call = from_hex("0005 0001" + object + "00080000 03000008" + object + "04000006 6d000000 0707ffec");
    call.resize(8 + 0x80000);
    for (int i = 0; i < 20; i++)
        caller.send_bytes(call);
    caller.expect("0001 0001" + object + "0000000c 01000008 0000000b"); // no memory
    EXPECT_GT(owner.receive().size(), call.size());                     // with user and group
    owner.send_hex("0003 0007 00000000 00000004");
    bytes last;
    while (!(last = owner.receive()).empty() && last[1] != UBUS_MSG_DATA) {
    }
    EXPECT_EQ(to_hex(last), text("0002 0007 00000000 00000004"));
}

TEST_F(Ubusd, SurvivesAFloodOfConnections)
{
    rlimit limit = {2048, 2048};
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> flood;
    for (int i = 0; i < 700; i++) {
        int fd = connect_unix(socket_path);
        if (fd >= 0)
            flood.push_back(fd);
    }
    EXPECT_GT(flood.size(), 500u);
    for (int fd : flood)
        close(fd);
    EXPECT_TRUE(wait_for([] {
        raw_client client(false);
        return !client.receive().empty();
    }));
    expect_alive();
}

TEST_F(Ubusd, RefusesASecondBrokerAndReplacesAStaleSocket)
{
    Process second = Process::start({std::string(BIN_DIR) + "/ubusd", "-s", socket_path}, {});
    auto status = second.wait_exit();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 1);
    expect_alive();
    broker.signal(SIGKILL);
    ASSERT_TRUE(broker.wait_exit());
    ASSERT_TRUE(std::filesystem::exists(socket_path));
    start_broker();
    expect_alive();
}

TEST_F(Ubusd, MakesTheFolderOfItsSocket)
{
    Process other = Process::start({std::string(BIN_DIR) + "/ubusd", "-s", "a/b/bus.sock"}, {});
    EXPECT_TRUE(wait_for([] { return std::filesystem::exists("a/b/bus.sock"); }));
}

} // namespace
