#include "random_arguments.h"

extern "C" {
#include <libubox/blobmsg.h>
}

using nlohmann::json;

static std::string content(Random &random)
{
    switch (random.between(0, 3)) {
    case 0:
        return "Hello";
    case 1:
        return std::string(static_cast<size_t>(random.between(0, 320)), 'a');
    case 2:
        return "Gr\xc3\xbc\xc3\x9f"
               "e {}[]~ \xe2\x82\xac";
    default:
        return "\xd0\x9f\xd1\x80\xd0\xb8\xd0\xb2\xd0\xb5\xd1\x82 \xf0\x9f\x98\x80";
    }
}

static std::string command(Random &random)
{
    return random.word({"AT", "ATI", "AT+CSQ", "AT+CREG?", "AT+CMGR=1", "AT+CMGR=99", "AT+NOSUCH", "", "ATE1", "ATE0",
                        "AT+CGMM", "AT+COPS?", "AT+CPMS?", "AT+CFUN=15", "gibberish", "AT+CSQ;+CGMM", "AT+CGDCONT?",
                        "AT+CLCK=\"SC\",2", "AT+GTCCINFO?"});
}

struct TextArgument {
    const char *name;
    std::initializer_list<const char *> values;
};

static json text_argument(Random &random, const std::string &name)
{
    static const TextArgument rows[] = {
        {"pin", {"1234", "1234", "1234", "0000"}},
        {"new_pin", {"1234"}},
        {"puk", {"", "12345678", "00000000"}},
        {"apn", {"internet", "ims", "", "a.b.c", "a-rather-long-access-point-name.operator.example"}},
        {"username", {"", "user", "somebody@operator"}},
        {"password", {"", "secret", "with space"}},
        {"name", {"", "Home", "Operator 5G"}},
        {"bands", {"101,103", "5041,5078", "1,8,101,103,501", "", "0"}},
        {"oper", {"46001", "CHN-UNICOM", "46000"}},
        {"sel_code", {"SIM PIN", "SIM PUK", "SC", ""}},
        {"dest", {"+491701234567", "10086", "+8613912345678", "0170 123-456"}},
        {"state", {"on", "off", "1", "3", "nonsense"}},
    };
    if (name == "content")
        return content(random);
    if (name == "at")
        return command(random);
    for (const TextArgument &row : rows) {
        if (name == row.name)
            return random.word(row.values);
    }
    return "text";
}

static json number_argument(Random &random, const std::string &name)
{
    if (name == "timeout_ms")
        return random.between(0, 3000);
    if (name == "act" || name == "rat")
        return random.pick({1, 2, 4, 10, 14, 16, 17, 20});
    if (name == "id" || name == "index")
        return random.between(0, 8);
    return random.between(0, 3);
}

json good_arguments(Random &random, const std::string &method, const Signature &signature)
{
    constexpr int left_out_per_mille = 150;
    constexpr int scan_per_mille = 100;
    json arguments = json::object();
    for (const auto &[name, type] : signature) {
        if (random.chance(left_out_per_mille))
            continue;
        if (type == BLOBMSG_TYPE_STRING)
            arguments[name] = text_argument(random, name);
        else if (type == BLOBMSG_TYPE_ARRAY)
            arguments[name] = {random.between(1, 10), random.between(1, 10)};
        else
            arguments[name] = number_argument(random, name);
    }
    // A reset each time would leave little but resets.
    if (method == "at_passthrough" && arguments.value("at", "") == "AT+CFUN=15" && !random.chance(scan_per_mille))
        arguments["at"] = "AT";
    return arguments;
}

static json nasty_text(Random &random)
{
    switch (random.between(0, 7)) {
    case 0:
        return "a\rAT+CFUN=15\r";
    case 1:
        return "'; touch /tmp/broken_out; '";
    case 2:
        return "$(touch /tmp/broken_out)`touch /tmp/broken_out`";
    case 3:
        return std::string(static_cast<size_t>(random.between(1000, 20000)), 'A');
    case 4:
        return "\x1a\x1b\x01";
    case 5:
        return "\"quoted\"=.[-1]@";
    case 6:
        return "%s%n%99999d";
    default:
        return "";
    }
}

static json nasty_number(Random &random)
{
    return random.pick<int64_t>({-1, INT32_MAX, INT32_MIN, 256, 65536, 1000000});
}

static json wrong_type(Random &random)
{
    switch (random.between(0, 6)) {
    case 0:
        return "text";
    case 1:
        return -1;
    case 2:
        return true;
    case 3:
        return 1.5;
    case 4:
        return json::array({"a", nullptr, json::object()});
    case 5:
        return json::object({{"deep", json::object({{"deeper", json::array()}})}});
    default:
        return INT64_MAX;
    }
}

static json bad_argument(Random &random, const std::string &name, int type)
{
    constexpr int wrong_type_per_mille = 400;
    // A time-out beyond measure is honoured up to ten minutes, which is nothing for a campaign; and a text for the
    // modem as it stands could be any command.
    if (name == "timeout_ms" || name == "at")
        return random.pick<int64_t>({0, 1, 500});
    if (random.chance(wrong_type_per_mille))
        return wrong_type(random);
    if (type == BLOBMSG_TYPE_STRING)
        return nasty_text(random);
    if (type == BLOBMSG_TYPE_ARRAY)
        return json::array({"x", nasty_number(random), INT64_MAX, json::array()});
    return nasty_number(random);
}

json bad_arguments(Random &random, const std::string &method, const Signature &signature)
{
    constexpr int bad_per_mille = 600;
    json arguments = good_arguments(random, method, signature);
    bool deletes = method.starts_with("delete_") && method.find("message") != std::string::npos;
    for (const auto &[name, type] : signature) {
        if (deletes || random.chance(bad_per_mille))
            arguments[name] = bad_argument(random, name, type);
    }
    // The daemon does not know it and must not mind.
    if (random.chance(bad_per_mille))
        arguments["unknown"] = wrong_type(random);
    return arguments;
}
