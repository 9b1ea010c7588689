// The bytes of blobs and members, and what becomes of bytes that are neither.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

struct Blob : ::testing::Test {
    blob_buf b = {};
    void SetUp() override
    {
        ASSERT_EQ(blob_buf_init(&b, 0), 0);
    }
    void TearDown() override
    {
        blob_buf_free(&b);
    }

    std::string hex() const
    {
        std::string text;
        auto *bytes = reinterpret_cast<const uint8_t *>(b.head);
        for (size_t i = 0; i < blob_raw_len(b.head); i++) {
            char two[3];
            snprintf(two, sizeof two, "%02x", bytes[i]);
            text += two;
            if (i % 4 == 3)
                text += ' ';
        }
        return text;
    }

    std::string json(int indent = -1) const
    {
        std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json_indent(b.head, true, indent), free);
        return text ? text.get() : "(null)";
    }
};

void *data_of(const blob_buf &b)
{
    return blob_data(b.head);
}

unsigned int length_of(const blob_buf &b)
{
    return static_cast<unsigned int>(blob_len(b.head));
}

TEST_F(Blob, AttributesHaveTheirBytes)
{
    blob_put_int32(&b, 3, 0x01020304);
    blob_put_string(&b, 2, "modem");
    void *nest = blob_nest_start(&b, 7);
    blob_put(&b, 10, "\1", 1);
    blob_nest_end(&b, nest);
    EXPECT_EQ(hex(), "00000024 03000008 01020304 0200000a 6d6f6465 6d000000 0700000c 0a000005 01000000 ");
}

TEST_F(Blob, MembersHaveTheirBytes)
{
    blobmsg_add_u8(&b, "on", 1);
    blobmsg_add_u16(&b, "", 0x1234);
    blobmsg_add_u32(&b, "result", 65536);
    blobmsg_add_u64(&b, "n", 0x0102030405060708);
    blobmsg_add_double(&b, "d", 1.5);
    void *array = blobmsg_open_array(&b, "a");
    blobmsg_add_string(&b, nullptr, "xyz");
    blobmsg_close_array(&b, array);
    void *table = blobmsg_open_table(&b, "t");
    blobmsg_close_table(&b, table);
    EXPECT_EQ(hex(), "00000070 8700000d 00026f6e 00000000 01000000 "
                     "8600000a 00000000 12340000 "
                     "85000014 00067265 73756c74 00000000 00010000 "
                     "84000010 00016e00 01020304 05060708 "
                     "88000010 00016400 3ff80000 00000000 "
                     "81000014 00016100 8300000c 00000000 78797a00 "
                     "82000008 00017400 ");
}

TEST_F(Blob, GrowsAndKeepsOpenTables)
{
    void *outer = blobmsg_open_table(&b, "outer");
    const std::string text(1000, 'x');
    for (int i = 0; i < 300; i++) {
        void *inner = blobmsg_open_table(&b, "inner");
        ASSERT_EQ(blobmsg_add_string(&b, "text", text.c_str()), 0);
        blobmsg_close_table(&b, inner);
    }
    blobmsg_close_table(&b, outer);
    size_t left = 0;
    int count = 0;
    blob_attr *entry;
    auto *first = static_cast<blob_attr *>(data_of(b));
    blobmsg_for_each_attr(entry, first, left)
    {
        auto *member = static_cast<blob_attr *>(blobmsg_data(entry));
        EXPECT_TRUE(blobmsg_check_attr(member, true));
        EXPECT_EQ(blobmsg_get_string(member), text);
        count++;
    }
    EXPECT_EQ(count, 300);
    EXPECT_EQ(blob_pad_len(first) + 4, blob_raw_len(b.head));
}

TEST_F(Blob, RefusesWhatALengthCannotHold)
{
    std::vector<char> large(0x1000000);
    EXPECT_EQ(blob_put(&b, 1, large.data(), static_cast<unsigned int>(large.size())), nullptr);
    EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_STRING, "x", large.data(), 0xfffff8), -1);
    EXPECT_EQ(blob_len(b.head), 0u);
    EXPECT_EQ(blobmsg_add_u32(&b, "x", 1), 0);
}

TEST_F(Blob, ParseTakesNameAndType)
{
    blobmsg_add_string(&b, "index", "7");
    blobmsg_add_u32(&b, "ip", 3);
    blobmsg_add_u8(&b, "any", 1);
    blobmsg_add_string(&b, "apn", "internet");
    const blobmsg_policy policy[] = {{"index", BLOBMSG_TYPE_INT32},
                                     {"ip", BLOBMSG_TYPE_INT32},
                                     {"any", BLOBMSG_TYPE_UNSPEC},
                                     {"apn", BLOBMSG_TYPE_STRING},
                                     {"missing", BLOBMSG_TYPE_STRING}};
    blob_attr *tb[5];
    blobmsg_parse(policy, 5, tb, data_of(b), length_of(b));
    EXPECT_EQ(tb[0], nullptr);
    ASSERT_NE(tb[1], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[1]), 3u);
    ASSERT_NE(tb[2], nullptr);
    EXPECT_TRUE(blobmsg_get_bool(tb[2]));
    ASSERT_NE(tb[3], nullptr);
    EXPECT_STREQ(blobmsg_get_string(tb[3]), "internet");
    EXPECT_STREQ(blobmsg_name(tb[3]), "apn");
    EXPECT_EQ(blobmsg_data_len(tb[3]), 9u);
    EXPECT_EQ(tb[4], nullptr);
}

TEST_F(Blob, ParseArrayGoesByPosition)
{
    blobmsg_add_u32(&b, nullptr, 5);
    blobmsg_add_u32(&b, nullptr, 6);
    const blobmsg_policy policy[] = {
        {nullptr, BLOBMSG_TYPE_INT32}, {nullptr, BLOBMSG_TYPE_STRING}, {nullptr, BLOBMSG_TYPE_INT32}};
    blob_attr *tb[3];
    blobmsg_parse_array(policy, 3, tb, data_of(b), length_of(b));
    ASSERT_NE(tb[0], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[0]), 5u);
    EXPECT_EQ(tb[1], nullptr);
    EXPECT_EQ(tb[2], nullptr);
}

// Every length from 0 to the whole, at an odd address, in memory that ends where the bytes do.
TEST_F(Blob, ParseOfACutListStaysInside)
{
    blobmsg_add_string(&b, "a", "text");
    blobmsg_add_u32(&b, "b", 2);
    const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32}};
    for (unsigned int size = 0; size <= length_of(b); size++) {
        auto memory = std::make_unique<char[]>(size + 1);
        memcpy(memory.get() + 1, data_of(b), size);
        blob_attr *tb[2];
        blobmsg_parse(policy, 2, tb, memory.get() + 1, size);
        EXPECT_EQ(tb[0] != nullptr, size >= 16u) << size;
        EXPECT_EQ(tb[1] != nullptr, size == length_of(b)) << size;
    }
}

// A good list with a few bytes changed and cut anywhere, in memory that ends where the bytes do.
TEST_F(Blob, NothingReadsPastTheEndOfRubbish)
{
    blobmsg_add_string(&b, "a", "text");
    void *table = blobmsg_open_table(&b, "t");
    blobmsg_add_u32(&b, "b", 2);
    blobmsg_close_table(&b, table);
    void *array = blobmsg_open_array(&b, "l");
    blobmsg_add_double(&b, nullptr, 2);
    blobmsg_add_u8(&b, nullptr, 2);
    blobmsg_close_array(&b, array);
    std::mt19937 random(1);
    const blobmsg_policy policy[] = {
        {"a", BLOBMSG_TYPE_UNSPEC}, {"t", BLOBMSG_TYPE_TABLE}, {"l", BLOBMSG_TYPE_ARRAY}, {"", BLOBMSG_TYPE_UNSPEC}};
    int members = 0;
    for (int round = 0; round < 20000; round++) {
        const size_t size = random() % (length_of(b) + 1);
        auto memory = std::make_unique<uint8_t[]>(size);
        memcpy(memory.get(), data_of(b), size);
        for (unsigned changes = random() % 4; size && changes > 0; changes--)
            memory[random() % size] = static_cast<uint8_t>(random() % 2 ? random() % 12 : random());
        blob_attr *tb[4];
        blobmsg_parse(policy, 4, tb, memory.get(), static_cast<unsigned int>(size));
        for (blob_attr *attr : tb) {
            if (!attr)
                continue;
            members++;
            EXPECT_TRUE(blobmsg_check_attr(attr, false));
            std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json_indent(attr, true, 0), free);
            EXPECT_NE(text, nullptr);
        }
    }
    EXPECT_GT(members, 1000);
}

TEST(BlobRubbish, CheckRefusesMalformedMembers)
{
    struct {
        const char *what;
        std::vector<uint8_t> bytes;
        bool good;
    } const rows[] = {
        {"int32", {0x85, 0, 0, 12, 0, 1, 'a', 0, 0, 0, 0, 1}, true},
        {"not extended", {0x05, 0, 0, 12, 0, 1, 'a', 0, 0, 0, 0, 1}, false},
        {"short int32", {0x85, 0, 0, 10, 0, 1, 'a', 0, 0, 0, 0, 0}, false},
        {"name without zero", {0x85, 0, 0, 12, 0, 1, 'a', 'b', 0, 0, 0, 1}, false},
        {"name past the end", {0x85, 0, 0, 12, 0, 9, 'a', 0, 0, 0, 0, 1}, false},
        {"no name header", {0x85, 0, 0, 4}, false},
        {"string without zero", {0x83, 0, 0, 12, 0, 1, 'a', 0, 'a', 'b', 'c', 'd'}, false},
        {"empty string value", {0x83, 0, 0, 8, 0, 1, 'a', 0}, false},
        {"empty name", {0x83, 0, 0, 12, 0, 0, 0, 0, 'a', 'b', 'c', 0}, false},
    };
    for (auto &row : rows) {
        auto memory = std::make_unique<uint8_t[]>(row.bytes.size());
        memcpy(memory.get(), row.bytes.data(), row.bytes.size());
        EXPECT_EQ(blobmsg_check_attr(reinterpret_cast<blob_attr *>(memory.get()), true), row.good) << row.what;
    }
}

TEST_F(Blob, JsonIsIndentedWithTabs)
{
    blobmsg_add_string(&b, "name", "a\"\\\n\x01z");
    blobmsg_add_u32(&b, "result", static_cast<uint32_t>(-1));
    void *array = blobmsg_open_array(&b, "list");
    blobmsg_add_u8(&b, nullptr, 1);
    blobmsg_add_double(&b, nullptr, 0.1);
    blobmsg_close_array(&b, array);
    EXPECT_EQ(
        json(0),
        "{\n\t\"name\": \"a\\\"\\\\\\n\\u0001z\",\n\t\"result\": -1,\n\t\"list\": [\n\t\ttrue,\n\t\t0.100000\n\t]\n}");
    EXPECT_EQ(json(), "{\"name\":\"a\\\"\\\\\\n\\u0001z\",\"result\":-1,\"list\":[true,0.100000]}");
}

TEST_F(Blob, JsonNumbersKeepTheirKind)
{
    const char *text = "{\"s\":\"1 2 \\\" 3\",\"a\":[1,-2147483648,2147483648,9007199254740993,1.0,1e2],"
                       "\"4\":{\"t\":true,\"f\":false}}";
    ASSERT_TRUE(blobmsg_add_json_from_string(&b, text));
    EXPECT_EQ(json(), "{\"s\":\"1 2 \\\" 3\",\"a\":[1,-2147483648,2147483648,9007199254740993,1.000000,100.000000],"
                      "\"4\":{\"t\":true,\"f\":false}}");
    blob_attr *tb[1];
    const blobmsg_policy policy = {"a", BLOBMSG_TYPE_ARRAY};
    blobmsg_parse(&policy, 1, tb, data_of(b), length_of(b));
    ASSERT_NE(tb[0], nullptr);
    std::vector<int> types;
    blob_attr *pos;
    size_t left;
    blobmsg_for_each_attr(pos, tb[0], left) types.push_back(blobmsg_type(pos));
    EXPECT_EQ(types, (std::vector<int>{BLOBMSG_TYPE_INT32, BLOBMSG_TYPE_INT32, BLOBMSG_TYPE_INT64, BLOBMSG_TYPE_INT64,
                                       BLOBMSG_TYPE_DOUBLE, BLOBMSG_TYPE_DOUBLE}));
}

TEST_F(Blob, JsonThatIsNoObjectIsRefused)
{
    for (const char *text : {"", "[1]", "1", "{\"a\":}", "{\"a\":1"})
        EXPECT_FALSE(blobmsg_add_json_from_string(&b, text)) << text;
}

} // namespace
