#include "mischief.h"

#include <set>
#include <stdexcept>

using nlohmann::json;

json Mischief::control(const json &command)
{
    json answer = modem_.control(command.dump());
    if (!answer.is_object() || !answer.value("ok", false))
        throw std::runtime_error("modem refused " + command.dump() + ": " + answer.dump());
    return answer;
}

static json random_trouble(Random &random)
{
    std::string kind =
        random.word({"split", "split", "split", "late", "never", "twice", "twice", "unsolicited", "unsolicited",
                     "rubbish", "endless", "error", "error", "vanish", "echo", "prompt_late", "holds", "silent"});
    bool long_one = kind == "never" || kind == "vanish" || kind == "silent" || kind == "late";
    json trouble = {{"kind", kind}, {"times", long_one ? 1 : random.between(1, 3)}};
    if (kind != "prompt_late" && random.chance(600))
        trouble["command"] = random.word({"AT+CMGR", "AT+CMGD", "AT+CMGS", "AT+CMGL", "AT+CSQ", "AT+CGDCONT", "AT+GT"});
    if (random.chance(300))
        trouble["nth"] = random.between(1, 20);
    if (kind == "split") {
        trouble["ms"] = {0, random.pick({0, 5, 200})};
        trouble["parts"] = random.pick({2, 3, 10});
    } else if (kind == "late" || kind == "silent") {
        trouble["ms"] = {50, 2900};
    } else if (kind == "twice") {
        trouble["ms"] = {0, 500};
    } else if (kind == "unsolicited") {
        trouble["where"] = random.word({"before", "inside", "after"});
        trouble["text"] = random.word({"+CREG: 1", "+CTZV: +8,1", "+CMTI: \"SM\",77", "RING", "+CGEV: NW DETACH"});
    } else if (kind == "rubbish") {
        trouble["where"] = random.word({"before", "inside", "after"});
        trouble["bytes"] = random.pick({1, 32, 4000});
    } else if (kind == "endless") {
        trouble["bytes"] = random.pick({2000, 70000, 300000});
        trouble["answer"] = random.chance(500);
    } else if (kind == "error") {
        trouble["text"] = random.word({"ERROR", "+CME ERROR: 100", "+CMS ERROR: 500", "NO CARRIER"});
    } else if (kind == "vanish") {
        trouble["where"] = random.word({"answer", "write"});
        trouble["ms"] = {100, 2000};
        trouble["reset"] = random.chance(300);
    } else if (kind == "prompt_late") {
        trouble["ms"] = {100, 4000};
    }
    if (random.chance(100) && kind != "echo" && kind != "holds") {
        trouble["stage"] = "prompt";
        trouble.erase("command");
    }
    return trouble;
}

void Mischief::trouble()
{
    (void)control({{"do", "trouble"}, {"args", {random_trouble(random_).dump()}}});
}

void Mischief::message()
{
    std::string key = ledger_.next_key();
    std::string text = key + " a message of the campaign";
    json command = {{"do", "sms"}, {"args", {random_.word({"+491701234567", "10086", "Operator"}), text}}};
    if (random_.chance(300))
        command["alphabet"] = "ucs2";
    ledger_.sent(key, text, control(command).at("ids"));
    done_["messages"]++;
}

void Mischief::long_message()
{
    constexpr size_t part_length = 152; // with a reference of two octets
    std::string key = ledger_.next_key();
    std::string text;
    for (int64_t length = random_.between(170, 440); static_cast<int64_t>(text.size()) < length;)
        text += key;
    json command = {{"do", "sms"}, {"args", {"+491709876543", text}}, {"ref", ++long_messages_ % 65536}};
    command["width"] = 16;
    command["order"] =
        text.size() > 2 * part_length ? random_.word({"1,2,3", "3,2,1", "2,3,1"}) : random_.word({"1,2", "2,1"});
    ledger_.sent(key, text, control(command).at("ids"));
    done_["long messages"]++;
}

void Mischief::event()
{
    static const std::vector<json> events = {
        {{"do", "ring"}, {"args", {"+491701112233"}}},
        {{"do", "hangup"}},
        {{"do", "signal"}, {"rsrp", -110}, {"rssi", -95}},
        {{"do", "signal"}, {"rsrp", -70}, {"rssi", -55}},
        {{"do", "cell"}, {"args", {"lte"}}},
        {{"do", "cell"}, {"args", {"nr"}}},
        {{"do", "cell"}, {"args", {"endc"}}},
        {{"do", "cell"}, {"args", {"umts"}}},
        {{"do", "cell"}, {"args", {"none"}}},
        {{"do", "register"}, {"args", {"home"}}},
        {{"do", "register"}, {"args", {"roaming"}}},
        {{"do", "register"}, {"args", {"denied"}}},
        {{"do", "context"}, {"args", {"1", "up"}}},
        {{"do", "context"}, {"args", {"1", "down"}}},
        {{"do", "sim"}, {"args", {"pull"}}},
        {{"do", "sim"}, {"args", {"return"}}},
        {{"do", "sim"}, {"args", {"return"}}},
        {{"do", "sim"}, {"args", {"pin"}}},
        {{"do", "sim"}, {"args", {"ready"}}},
        {{"do", "sim"}, {"args", {"ready"}}},
        {{"do", "reset"}, {"ms", 1500}},
        {{"do", "port"}, {"args", {"away"}}, {"ms", 700}},
        {{"do", "port"}, {"args", {"away"}}, {"ms", 3000}},
        {{"do", "emit"}, {"args", {"+CGEV: NW DETACH"}}},
        {{"do", "emit"}, {"args", {"+CMTI: \"SM\",-5"}}},
        {{"do", "emit"}, {"args", {"+SIM READY"}}},
        {{"do", "emit"}, {"args", {"+CPMS: \"SM\",20,20,\"SM\",20,20,\"SM\",20,20"}}},
        {{"do", "emit"}, {"args", {"+CGDCONT: 1,\"IPV6\",\"apn\""}}},
        {{"do", "raw"}, {"args", {"\\x00\\xff\\x1a> \\r\\n+CMGR: \\r\\n\\r\\n+CMGL: 1,1,,3\\r\\nzz\\r\\n"}}},
        {{"do", "raw"}, {"args", {"\\r\\nERROR\\r\\nOK\\r\\n> "}}},
        {{"do", "flood"}, {"lines", 2000}},
        {{"do", "flood"}, {"bytes", 400000}},
        {{"do", "silent"}, {"args", {"1500"}}},
        {{"do", "latency"}, {"args", {"50"}}},
        {{"do", "latency"}, {"args", {"1"}}},
        {{"do", "fill"}},
        {{"do", "fill"}, {"leave", 3}},
    };
    // What keeps the modem from answering for seconds keeps everything else from happening.
    static const std::set<std::string> long_ones = {"reset", "port", "silent", "sim", "fill"};
    json chosen = random_.pick(events);
    if (long_ones.contains(chosen.at("do")) && random_.chance(600))
        chosen = random_.pick(events);
    (void)control(chosen);
    std::string name = chosen.at("do");
    if (chosen.contains("args") && (name == "port" || name == "sim"))
        name += " " + chosen.at("args").at(0).get<std::string>();
    done_[name]++;
}

void Mischief::act()
{
    switch (random_.between(0, 9)) {
    case 0:
    case 1:
    case 2:
    case 3:
        trouble();
        break;
    case 4:
    case 5:
    case 6:
        message();
        break;
    case 7:
        long_message();
        break;
    default:
        event();
        break;
    }
}

void Mischief::end()
{
    (void)control({{"do", "trouble"}, {"args", {"clear"}}});
    (void)control({{"do", "silent"}, {"args", {"end"}}});
    (void)control({{"do", "port"}, {"args", {"back"}}});
    json usual = {{"sim", {{"lock", false}, {"pin", "1234"}, {"puk", "12345678"}, {"pin_left", 3}, {"puk_left", 10}}},
                  {"network", {{"cell", "lte"}, {"registration", "home"}}},
                  {"kept",
                   {{"rat", 20},
                    {"pref1", 6},
                    {"pref2", 3},
                    {"bands", {1, 8, 101, 103, 5041, 5078}}}},   // a client may have chosen what the cell does not have
                  {"settings", {{"cfun", 1}, {"cops_mode", 0}}}, // a client may have left the network
                  {"behaviour", {{"latency_ms", 1}}}};
    (void)control({{"do", "set"}, {"args", {usual.dump()}}});
    (void)control({{"do", "hangup"}});
    (void)control({{"do", "sim"}, {"args", {"return"}}});
    (void)control({{"do", "sim"}, {"args", {"ready"}}});
}

std::map<std::string, int64_t> Mischief::figures()
{
    std::map<std::string, int64_t> all = done_;
    json counts = control({{"do", "state"}, {"args", {"/troubles/counts"}}}).at("state");
    for (const auto &[kind, count] : counts.items())
        all["answer " + kind] = count;
    return all;
}
