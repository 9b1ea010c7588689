// Every caller gets the answer to its own command, whole, and gets it whenever the modem gave it in time. The answers
// of the modem here carry the number of the command that they answer, setters are refused or not by chance, and all the
// modem's misbehaviour is mixed in.
//
// By hand: CELMUX_MIX_EXCHANGES=10000 CELMUX_MIX_SEED=7 CELMUX_MIX_CLIENTS=1,2,4,16 CELMUX_MIX_LATE=300,10000
#include <algorithm>
#include <atomic>
#include <charconv>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sms.h>
#include <unistd.h>

#include "adversary.h"
#include "daemon.h"
#include "pipelined_caller.h"

namespace {

using nlohmann::json;

const Rates everything = {{"late", 12},    {"never", 6},   {"twice", 20}, {"echo", 20},   {"foreign", 80}, {"cut", 6},
                          {"dribble", 15}, {"pauses", 60}, {"nul", 20},   {"cr", 20},     {"eight", 50},   {"port", 1},
                          {"deaf", 2},     {"report", 40}, {"stray", 10}, {"refused", 30}};

enum class Kind { named, listing, same_text, setter, message, scan };

struct Question {
    Kind kind;
    const char *method;
    const char *key;     // of the value in the answer; "resp" for pass-through
    const char *command; // {} stands for a text that no other call has
    int weight;
    int64_t timeout_ms = 3000;
};

constexpr Question questions[] = {
    {Kind::named, "get_imei", "imei", "AT+CGSN=1", 8},
    {Kind::named, "get_imsi", "imsi", "AT+CIMI?", 8},
    {Kind::named, "get_ccid", "ccid", "AT+CCID", 8},
    {Kind::named, "get_sw_version", "sw_version", "AT+CGMR?", 8},
    {Kind::named, "get_support_tech", "support_tech", "AT+GTRAT=?", 8},
    {Kind::named, "get_current_apn", "apn", "AT+CGDCONT?", 4},
    {Kind::named, "get_pdp_contexts", "pdp_contexts", "AT+CGACT?", 8},
    {Kind::named, "at_passthrough", "resp", "at+csq", 8, 1000},
    {Kind::named, "at_passthrough", "resp", "AT+CSIM=10,\"{}\"", 16, 1000},
    {Kind::listing, "at_passthrough", "resp", "AT+CMGL=\"{}\"", 8, 1500},
    {Kind::listing, "at_passthrough", "resp", "AT+GTLONG={}", 1, 5000},
    {Kind::same_text, "at_passthrough", "resp", "AT+CRSM={}", 8, 1000},
    {Kind::setter, "set_pdp_context_activation", "result", "AT+CGACT=1,{}", 12},
    {Kind::setter, "at_passthrough", "resp", "AT+CGDCONT=3,\"IP\",\"{}\"", 12, 1000},
    {Kind::message, "send_message", "result", "{}", 2, 10000},
    {Kind::scan, "scan_network", "result", "AT+COPS=?", 1},
};

struct Call {
    const Question *question = nullptr;
    std::string command; // for a message its PDU
    Moment begin, end;
    Moment start{}; // when the daemon can have begun with it: it serves one method after the other
    int64_t result = -1;
    json value;
};

enum Verdict { right, wrong, halved, undelivered, unasked, no_answer, refused, by_stray, repeated, verdicts };
const char *const verdict_names[] = {"right",
                                     "wrong",
                                     "halved",
                                     "undelivered",
                                     "not asked though the modem was free",
                                     "no answer given",
                                     "refused in a scan",
                                     "led astray by a stray final",
                                     "got a repetition"};

class WhoseAnswer : public testing::Test {
protected:
    static DaemonOptions without_modem()
    {
        DaemonOptions options;
        options.with_modem = false;
        return options;
    }
    PrivateRoot root;
    const int seed = atoi(from_environment("CELMUX_MIX_SEED", "1").c_str());
    Adversary adversary{static_cast<unsigned>(seed)};
    ScriptedModem modem{root.path("/dev/ttyMODEM"), std::ref(adversary)};
    Daemon daemon{root, without_modem()};
    std::mutex mutex; // guards calls
    std::vector<Call> calls;
    std::vector<Input> inputs;
    std::vector<std::pair<Moment, Moment>> absences;
    int counts[verdicts] = {};
    int shown[verdicts] = {};

    static Call make_call(std::mt19937 &random, const std::vector<const Question *> &bag)
    {
        static std::atomic<int> unique{1000000};
        Call call;
        call.question = bag[random() % bag.size()];
        call.command = fmt::format(fmt::runtime(call.question->command), unique++);
        return call;
    }
    void run(PipelinedCaller &client, Call &call)
    {
        const Question &question = *call.question;
        json arguments = json::object();
        if (question.method == std::string("at_passthrough"))
            arguments = {{"at", call.command}, {"timeout_ms", question.timeout_ms}};
        else if (question.kind == Kind::setter)
            arguments = {{"state", 1}, {"cid", atoi(call.command.c_str() + call.command.find(',') + 1)}};
        else if (question.kind == Kind::message)
            arguments = {{"dest", "+491701234567"}, {"type", 0}, {"content", call.command}};
        call.begin = Clock::now();
        PipelinedAnswer outcome = client.ask(question.method, arguments, milliseconds(120000));
        call.end = Clock::now();
        call.result = outcome.status == 0 ? outcome.result() : -1000 - outcome.status;
        if (outcome.data.is_object() && outcome.data.contains(question.key))
            call.value = outcome.data[question.key];
        if (question.kind == Kind::message)
            call.command = pdu_of(call.command);
    }
    static std::string pdu_of(const std::string &text)
    {
        sms_pdu *list = nullptr;
        EXPECT_EQ(encode_pdu("+491701234567", 0, text.c_str(), static_cast<int>(text.size()), &list, 0), 0);
        std::string pdu = list->pdu + std::string("\x1A");
        free_list(&list);
        return pdu;
    }
    void mix(const Rates &rates, int exchanges, const std::vector<int> &rounds,
             const std::vector<const Question *> &bag)
    {
        ASSERT_TRUE(daemon.wait_until_calm());
        int root_fd = open(root.path("/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        std::string socket = fmt::format("/proc/self/fd/{}/var/run/ubus/ubus.sock", root_fd);
        adversary.arm(rates);
        const Moment end = Clock::now() + std::chrono::milliseconds(20000 + 250 * exchanges);
        for (int clients : rounds) {
            std::vector<std::thread> threads;
            for (int i = 0; i < clients; i++)
                threads.emplace_back([&, i, clients] {
                    std::mt19937 random(static_cast<unsigned>(seed * 10000 + i * 100 + clients));
                    PipelinedCaller client(socket);
                    for (int left = exchanges / static_cast<int>(rounds.size()) / clients; left > 0; left--) {
                        Call call = make_call(random, bag);
                        if (Clock::now() > end)
                            return;
                        run(client, call);
                        if (call.result != 0 && call.end - call.begin < milliseconds(5))
                            std::this_thread::sleep_for(milliseconds(20)); // refused: a caller that comes again soon
                        std::lock_guard lock(mutex);
                        calls.push_back(std::move(call));
                    }
                });
            for (std::thread &thread : threads)
                thread.join();
        }
        adversary.arm({});
        EXPECT_LT(Clock::now(), end) << "the daemon got stuck; the callers gave up";
        (void)close(root_fd);
        judge_all();
    }

    // The inputs of this command while the call was under way.
    std::vector<size_t> candidates(const Call &call) const
    {
        std::vector<size_t> found;
        for (size_t i = 0; i < inputs.size(); i++)
            if (inputs[i].text == call.command && inputs[i].came >= call.begin && inputs[i].came <= call.end)
                found.push_back(i);
        return found;
    }
    bool stray_during(const Call &call) const
    {
        return std::any_of(adversary.strays.begin(), adversary.strays.end(), [&](size_t number) {
            const Input &input = inputs[number];
            return input.came < call.end && (input.done == Moment{} || input.done + milliseconds(100) > call.start);
        });
    }
    // Equal questions that wait together are asked once.
    static bool shares(const Call &call)
    {
        return call.question->kind == Kind::named && std::string_view(call.question->method) != "at_passthrough";
    }
    Verdict claim(const Call &call, size_t number)
    {
        auto found = adversary.given.find(number);
        if (found == adversary.given.end() || inputs[number].text != call.command)
            return wrong;
        if (inputs[number].came < call.begin || inputs[number].came > call.end ||
            (found->second.claimed && !shares(call)))
            return found->second.twice ? repeated : wrong;
        found->second.claimed = true;
        return right;
    }
    // A verdict without a number in it: the modem has said the same.
    Verdict claim_final(const Call &call, const std::string &final, bool with_lines)
    {
        for (size_t i : candidates(call)) {
            Given &own = adversary.given[i];
            if ((own.claimed && !shares(call)) || !own.answered || own.lines.empty() == with_lines)
                continue;
            own.claimed = true;
            bool same = final == own.final || (final == "ERROR" && own.final != "OK" && call.value.is_number());
            return same ? right : stray_during(call) ? by_stray : wrong;
        }
        return stray_during(call) ? by_stray : wrong;
    }
    // When the scan that the modem was asked for at `came` was called for; it may have waited behind late answers.
    Moment scan_before(Moment came) const
    {
        Moment last{};
        for (const Call &call : calls)
            if (call.question->kind == Kind::scan && call.begin <= came)
                last = std::max(last, call.begin);
        return last == Moment{} ? came : last;
    }
    Verdict failed(const Call &call) const
    {
        const auto time = milliseconds(call.question->timeout_ms);
        Moment limit = call.start + time - milliseconds(100);
        if (call.end - call.begin >= time) // of a silent modem a call waits for no longer than that, its turn included
            limit = std::min(limit, call.end - milliseconds(50));
        const Clock::duration about = milliseconds(50); // the scan is queued, or its answer on the way
        for (const Input &input : inputs)
            if (input.text == "AT+COPS=?" && std::min(input.came - about, scan_before(input.came)) < call.end &&
                (input.done == Moment{} || input.done + about > call.start))
                return refused;
        std::vector<size_t> asked = candidates(call);
        bool answered = std::any_of(asked.begin(), asked.end(), [&](size_t i) {
            return !adversary.given.at(i).claimed && inputs[i].answered != Moment{} && inputs[i].answered < limit;
        });
        if (!asked.empty() && !answered)
            return no_answer;
        if (stray_during(call))
            return by_stray;
        return answered ? undelivered : free_ms(call) < 800 ? no_answer : unasked;
    }
    // For how long the modem could have been asked meanwhile.
    int64_t free_ms(const Call &call) const
    {
        std::vector<std::pair<Moment, Moment>> busy = absences;
        for (auto &[from, to] : busy)
            to += milliseconds(2500); // so long it may take to find that it is back
        for (const Input &input : inputs)
            if (input.done - input.came > milliseconds(200) || input.done == Moment{})
                busy.emplace_back(input.came, input.done == Moment{} ? Clock::now() : input.done);
        auto left = call.end - call.start;
        for (const auto &[from, to] : busy)
            left -= std::max(std::min(to, call.end) - std::max(from, call.start), Clock::duration(0));
        return std::chrono::duration_cast<milliseconds>(left).count();
    }

    static size_t number_in(std::string_view text, size_t at)
    {
        size_t number = 0;
        at = text.find_first_not_of('0', at);
        if (at == text.npos || std::from_chars(text.data() + at, text.data() + text.size(), number).ec != std::errc())
            return SIZE_MAX;
        return number;
    }
    Verdict judge_typed(const Call &call)
    {
        if (call.result == 0xFFFF && !candidates(call).empty() && claim_final(call, "ERROR", false) == right)
            return right;
        if (call.result != 0 || !call.value.is_string())
            return failed(call);
        std::string value = call.value;
        std::string digits;
        for (char c : value)
            if (c >= '0' && c <= '9')
                digits += c;
        size_t number = number_in(digits.substr(0, call.command == "AT+GTRAT=?" ? 7 : std::string::npos), 0);
        auto found = adversary.given.find(number);
        if (found == adversary.given.end())
            return halved;
        std::string lines;
        for (const std::string &line : found->second.lines)
            lines += call.command == "AT+CGACT?" ? line.substr(line.size() - 1) : line;
        return lines.find(value) == lines.npos || (call.command == "AT+GTRAT=?" && value.size() < 800) ||
                       value.size() < 3
                   ? halved
                   : claim(call, number);
    }
    Verdict judge_text(const Call &call)
    {
        if (call.result != 0 || !call.value.is_string())
            return failed(call);
        std::string text = call.value;
        std::vector<std::string> lines;
        for (size_t at = 0; (at = text.find_first_not_of("\r\n", at)) != text.npos; at = text.find_first_of("\r\n", at))
            lines.push_back(text.substr(at, text.find_first_of("\r\n", at) - at));
        std::string final;
        for (const std::string &line : lines)
            if (line == "OK" || line == "ERROR" || line.starts_with("+CME ERROR"))
                final = line;
        bool named = std::any_of(lines.begin(), lines.end(), carries_a_name);
        if (call.question->kind == Kind::setter)
            return named ? wrong : claim_final(call, final, false);
        if (call.question->kind == Kind::same_text && text.find("+CRSM") != text.npos)
            return claim_final(call, final, true);
        size_t mark = text.find('#');
        size_t colon = text.find("+CSQ: ");
        if (mark == text.npos && colon == text.npos)
            return named ? wrong : claim_final(call, final, false);
        size_t number = number_in(text, mark != text.npos ? mark + 1 : colon + 6);
        auto found = adversary.given.find(number);
        if (found == adversary.given.end())
            return halved;
        size_t next = 0;
        for (const std::string &line : lines)
            next += next < found->second.lines.size() && line == found->second.lines[next];
        Verdict verdict = claim(call, number);
        return verdict == right && (next < found->second.lines.size() || final.empty()) ? halved : verdict;
    }
    Verdict judge_setter(const Call &call)
    {
        bool late =
            call.end - call.start > milliseconds(call.question->timeout_ms - 100); // a busy daemon says ERROR too
        if (call.result == 0 || (call.result == 0xFFFF && !late))
            return claim_final(call, call.result == 0 ? "OK" : "ERROR", false);
        return failed(call);
    }
    Verdict judge_message(const Call &call)
    {
        for (size_t i : candidates(call)) {
            Given &own = adversary.given[i];
            if (own.answered && (own.final == "OK") == (call.result == 0))
                return right;
        }
        const auto &lost = absences;
        bool port_lost = std::any_of(lost.begin(), lost.end(),
                                     [&](auto &each) { return each.first > call.start && each.first < call.end; });
        return call.result == 0 ? wrong : port_lost ? no_answer : failed(call);
    }
    Verdict judge(const Call &call)
    {
        if (call.question->kind == Kind::scan)
            return call.result == 0 ? right : refused;
        if (call.question->kind == Kind::message)
            return judge_message(call);
        if (call.question->method == std::string("at_passthrough"))
            return judge_text(call);
        return call.question->kind == Kind::setter ? judge_setter(call) : judge_typed(call);
    }
    void judge_all()
    {
        inputs = modem.inputs();
        absences = modem.absences(); // before the lock: the modem takes it under its own
        std::lock_guard lock(adversary.mutex);
        std::sort(calls.begin(), calls.end(), [](const Call &a, const Call &b) { return a.end < b.end; });
        Moment before{};
        for (Call &call : calls) {
            call.start = std::max(call.begin, before);
            before = call.end;
            Verdict verdict = judge(call);
            counts[verdict]++;
            if (verdict != right && verdict != refused && verdict != no_answer && ++shown[verdict] <= 5)
                fmt::print("  {}: {} {} ({} ms): result {} {}\n", verdict_names[verdict], call.question->method,
                           call.command, std::chrono::duration_cast<milliseconds>(call.end - call.start).count(),
                           call.result, call.value.dump().substr(0, 150));
        }
        std::string line;
        for (int i = 0; i < verdicts; i++)
            line += fmt::format("{}{} {}", i ? ", " : "", counts[i], verdict_names[i]);
        fmt::print("{}; the modem repeated {} answers and gave {} stray finals\n", line, adversary.repeats,
                   adversary.strays.size());
    }
    void expect_promise()
    {
        // One stray final result code misleads one call at most, be it the one that it came to or the next.
        const int strays_left = static_cast<int>(adversary.strays.size()) - counts[by_stray];
        EXPECT_LE(counts[wrong], strays_left);
        EXPECT_EQ(counts[halved], 0);
        EXPECT_LE(counts[undelivered] + counts[unasked] + counts[wrong], counts[right] / 1000 + strays_left);
        EXPECT_LE(counts[repeated], adversary.repeats);
        EXPECT_GT(counts[right], 0);
        EXPECT_TRUE(daemon.celmuxd().running());
    }
};

TEST_F(WhoseAnswer, NobodyGetsAnotherCallersAnswerOrHalfOfOneOrNone)
{
    int exchanges = atoi(from_environment("CELMUX_MIX_EXCHANGES", "300").c_str());
    std::vector<const Question *> asked;
    for (const Question &question : questions)
        asked.insert(asked.end(), static_cast<size_t>(question.weight), &question);
    mix(everything, exchanges, numbers_in(from_environment("CELMUX_MIX_CLIENTS", "1,2,4")), asked);
    expect_promise();
}

// One trouble at a time, with the rate at which each strikes.
struct Row {
    const char *name;
    Rates rates;
    int exchanges;
};

class WhoseAnswerWith : public WhoseAnswer, public testing::WithParamInterface<Row> {};

void PrintTo(const Row &row, std::ostream *out)
{
    *out << row.name;
}

TEST_P(WhoseAnswerWith, TroubleOfOneKind)
{
    const std::map<Kind, std::string> only_for = {{Kind::same_text, "SameTextForDifferentCommands"},
                                                  {Kind::message, "PortLostAtThePrompt"},
                                                  {Kind::scan, "Scan"}};
    std::vector<const Question *> asked;
    for (const Question &question : questions) {
        bool rare = only_for.contains(question.kind);
        if (!rare || only_for.at(question.kind) == GetParam().name)
            asked.insert(asked.end(), static_cast<size_t>(question.weight * (rare ? 5 : 1)), &question);
    }
    size_t before = modem.count("AT+CGMI?") + modem.count("AT+GMM?");
    mix(GetParam().rates, GetParam().exchanges, {1, 3}, asked);
    expect_promise();
    size_t own = 2;
    std::unique_lock lock(adversary.mutex);
    for (const auto &[number, given] : adversary.given)
        own += given.final == "ERROR"; // may be a stray: the modem is asked once more
    lock.unlock();
    bool well = GetParam().rates.empty() && counts[right] == static_cast<int>(calls.size());
    EXPECT_TRUE(!well || modem.count("AT+CGMI?") + modem.count("AT+GMM?") <= before + own)
        << "a modem that is well is asked more than callers ask";
}

INSTANTIATE_TEST_SUITE_P(
    , WhoseAnswerWith,
    testing::Values(Row{"None", {}, 200}, Row{"SameTextForDifferentCommands", {}, 100}, Row{"Scan", {}, 100},
                    Row{"Late", {{"late", 60}}, 60}, Row{"Never", {{"never", 50}}, 60},
                    Row{"Twice", {{"twice", 300}}, 100}, Row{"Echo", {{"echo", 500}}, 100},
                    Row{"ForeignLines", {{"foreign", 700}}, 200}, Row{"Cut", {{"cut", 50}}, 60},
                    Row{"Dribbling", {{"dribble", 300}}, 60}, Row{"Pauses", {{"pauses", 500}}, 100},
                    Row{"Nul", {{"nul", 500}}, 100}, Row{"CarriageReturnsAlone", {{"cr", 500}}, 100},
                    Row{"EightBits", {{"eight", 500}}, 100},
                    Row{"ForeignAndPauses", {{"foreign", 500}, {"pauses", 400}}, 150}, Row{"Deaf", {{"deaf", 20}}, 60},
                    Row{"PortLost", {{"port", 30}}, 60}, Row{"PortLostAtThePrompt", {{"prompt_port", 500}}, 40},
                    Row{"DiallingResults", {{"report", 400}}, 200}, Row{"StrayFinals", {{"stray", 100}}, 200}),
    [](const auto &row) { return std::string(row.param.name); });

} // namespace
