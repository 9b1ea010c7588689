// The link's state machine against a modem on a clock of its own: every combination of three commands, of what a modem
// may do to each, and of one stray final result code at each place. Then single rules.

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <memory>

#include <cjson/cJSON.h>

#include "config.h"
#include "final_results.h"
#include "link_machine.h"

namespace {

constexpr int64_t MS = 1000;
constexpr int64_t LATENCY = 20 * MS;
constexpr int64_t TIMEOUT = 3000 * MS;

struct Results : testing::Environment {
    void SetUp() override
    {
        json_g =
            cJSON_Parse(R"({"results": ["OK", "ERROR", "+CME ERROR", "+CMS ERROR", "NO CARRIER", "BUSY", "CONNECT"]})");
        load_results();
    }
    void TearDown() override
    {
        free_results();
        cJSON_Delete(json_g);
        json_g = nullptr;
    }
};
[[maybe_unused]] testing::Environment *const results = testing::AddGlobalTestEnvironment(new Results);

// What the modem does to a command, and what it may say besides.
enum Behaviour { ANSWERS, LATE, NEVER, TWICE, CUT, BARE, BEHAVIOURS };
enum Place { BEFORE, WITH, INSIDE, SOON_BEHIND, HALFWAY, PLACES };

struct Ask {
    const char *command;
    const char *expected;
    const char *line; // the answer's, in front of the exchange's number; null: final result code only
    const char *final;
};
constexpr Ask ASKS[] = {
    {"AT+CSQ\r", "+CSQ:", "+CSQ: 99,", "OK"},
    {"AT+CREG?\r", "+CREG:", "+CREG: 0,", "OK"},
    {"AT+CFUN=1\r", nullptr, nullptr, "OK"},
    {"AT+CFUN=9\r", nullptr, nullptr, "ERROR"},
};

struct Plan {
    const Ask *ask;
    Behaviour behaviour;
};

std::string lines(std::initializer_list<std::string> each)
{
    std::string text;
    for (const std::string &line : each)
        text += line.empty() ? "" : "\r\n" + line + "\r\n";
    return text;
}

std::string line_of(const Plan &plan, int number)
{
    return plan.ask->line ? plan.ask->line + std::to_string(number) : "";
}

struct World {
    LinkMachine machine = {};
    int64_t now = 1000 * MS;
    std::multimap<int64_t, std::string> to_say;
    int64_t busy_until = 0;
    bool deaf = false;
    std::vector<Plan> plans; // of the next commands
    const char *stray = nullptr;
    int stray_command = -1;
    Place stray_place = BEFORE;
    int commands = 0; // callers' commands written so far
    int marks = 0;
    std::vector<std::string> reports;
    std::map<uint32_t, std::pair<bool, std::string>> answers; // (has a text, text)

    static World *current;

    World()
    {
        current = this;
        machine_init(&machine, false, [](const char *text, size_t length, uint32_t number) {
            current->written.emplace_back(std::string(text, length), number);
            return true;
        });
    }
    ~World()
    {
        machine_free(&machine);
    }
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    std::vector<std::pair<std::string, uint32_t>> written; // on its way to the port
    std::vector<std::string> seen;                         // by the modem

    void say(int64_t at, const std::string &text)
    {
        to_say.emplace(at, text);
    }
    void take_item(LinkItem *item)
    {
        if (item->kind == LinkItem::Kind::answer || item->kind == LinkItem::Kind::prompt)
            answers[item->number] = {item->text != nullptr, item->text ? item->text : ""};
        if (item->kind == LinkItem::Kind::report)
            reports.push_back(item->text);
        free(item->text);
    }
    // The modem has read a command.
    void serve(const std::string &command)
    {
        static const std::pair<const char *, const char *> MARKS[] = {{"AT+CGMI?\r", "+CGMI: \"M\""},
                                                                      {"AT+GMM?\r", "+GMM: \"M\""},
                                                                      {"AT+CGMR?\r", "+CGMR: \"R\""},
                                                                      {"AT+CMGF?\r", "+CMGF: 0"},
                                                                      {"AT+CGSN=1\r", "+CGSN: \"8\""}};
        seen.push_back(command);
        if (deaf)
            return;
        int64_t start = std::max(now, busy_until);
        for (const auto &[mark, answer] : MARKS) {
            if (command != mark)
                continue;
            marks++;
            busy_until = start + LATENCY;
            say(busy_until, lines({answer, "OK"}));
            return;
        }
        if (command[0] == '\x1b' || static_cast<size_t>(commands) >= plans.size())
            return;
        const Plan &plan = plans[static_cast<size_t>(commands)];
        bool strays = stray && stray_command == commands;
        std::string extra = strays ? lines({stray}) : "";
        std::string line = plan.behaviour == BARE ? "" : line_of(plan, commands + 1);
        commands++;
        bool with = strays && stray_place == WITH, inside = strays && stray_place == INSIDE;
        std::string whole = (with ? extra : "") + lines({line}) + (inside ? extra : "") + lines({plan.ask->final});
        if (strays && stray_place == BEFORE)
            say(now, extra);
        if (strays && stray_place == HALFWAY)
            say(start + LATENCY / 2, extra);
        int64_t done = start + (plan.behaviour == LATE ? TIMEOUT + 500 * MS : LATENCY);
        if (strays && stray_place == SOON_BEHIND)
            say(done + 5 * MS, extra);
        if (plan.behaviour == NEVER)
            return;
        busy_until = done;
        say(done, plan.behaviour == CUT ? lines({line}) : whole);
        if (plan.behaviour == TWICE)
            say(done + 5 * MS, whole);
    }
    void feed(const std::string &text)
    {
        LinkItem item;
        size_t at = 0;
        do {
            at += machine_take(&machine, text.data() + at, text.size() - at, now, &item);
            take_item(&item);
        } while (at < text.size() || item.kind != LinkItem::Kind::nothing);
    }
    void write_out()
    {
        while (!written.empty()) {
            auto [text, number] = written.front();
            written.erase(written.begin());
            if (machine_may_write(&machine, number, now))
                serve(text);
        }
    }
    // Lets time pass until `end`, or until `number` has an answer.
    void run(int64_t end, uint32_t number = 0)
    {
        for (;;) {
            write_out();
            if (number && answers.contains(number))
                return;
            int64_t next = std::min(end, machine_next_tick(&machine, now));
            bool says = !to_say.empty() && to_say.begin()->first <= next;
            if (says)
                next = to_say.begin()->first;
            now = std::max(now, next);
            if (says) {
                std::string text = to_say.begin()->second;
                to_say.erase(to_say.begin());
                feed(text);
            } else if (now >= end) {
                return;
            } else {
                LinkItem item;
                machine_tick(&machine, now, &item);
                take_item(&item);
            }
        }
    }
    // A caller's exchange. True with *text when there is an answer.
    bool exchange(const Ask &ask, std::string *text, int64_t timeout = TIMEOUT)
    {
        uint32_t number = machine_submit(&machine, strdup(ask.command), ask.expected, LinkCaller::waits, now);
        run(now + timeout, number);
        if (!answers.contains(number)) {
            char *late = nullptr;
            EXPECT_TRUE(machine_abandon(&machine, number, now, &late));
            answers[number] = {late != nullptr, late ? late : ""};
            free(late);
        }
        *text = answers[number].second;
        return answers[number].first;
    }
    // Brings the link in step and shows it how quick the modem is.
    void warm_up()
    {
        std::string text;
        std::vector<Plan> mine(LINK_RECENT, {&ASKS[0], ANSWERS});
        std::swap(plans, mine);
        const char *none = std::exchange(stray, nullptr);
        for (size_t i = 0; i < plans.size(); i++)
            EXPECT_TRUE(exchange(ASKS[0], &text));
        plans = std::move(mine);
        stray = none;
        commands = 0;
        marks = 0;
    }
};

World *World::current;

struct Counts {
    long runs, right, wrong, undelivered, no_answer;
};

// What the caller of a command got, against what the modem said.
void judge(const Plan &plan, int turn, bool answered, const std::string &text, bool excused, Counts *counts)
{
    bool said = plan.behaviour == ANSWERS || plan.behaviour == TWICE || (plan.behaviour == BARE && !plan.ask->expected);
    if (!answered)
        (said && !excused ? counts->undelivered : counts->no_answer)++;
    else if (said && text.find(plan.ask->final) != std::string::npos &&
             text.find(line_of(plan, turn + 1)) != std::string::npos)
        counts->right++;
    else
        counts->wrong++;
}

// Three commands, then one in quiet. The stray result code comes at a place of one of them, or not at all.
void play(const std::vector<Plan> &plans, const char *stray, int place, Counts *sum)
{
    World world;
    world.warm_up();
    world.plans = plans;
    world.plans.push_back({&ASKS[0], ANSWERS});
    world.stray = stray;
    world.stray_command = place / PLACES;
    world.stray_place = static_cast<Place>(place % PLACES);
    Counts counts = {};
    long troubles = stray && strcmp(stray, "NO CARRIER") != 0;
    bool excused = false; // behind a late answer the modem is busy for a while
    bool healthy = !stray;
    std::string told;
    for (size_t i = 0; i < plans.size(); i++) {
        std::string text;
        bool answered = world.exchange(*plans[i].ask, &text);
        judge(plans[i], static_cast<int>(i), answered, text, excused, &counts);
        excused = plans[i].behaviour == LATE;
        troubles += plans[i].behaviour != ANSWERS;
        told += plans[i].ask->command + std::to_string(plans[i].behaviour) + " <" + text + "> ";
        healthy = healthy && plans[i].behaviour == ANSWERS;
    }
    if (stray)
        told += stray + (" at " + std::to_string(place));
    bool glued = world.stray_place == WITH || world.stray_place == INSIDE;
    EXPECT_TRUE(!healthy || world.marks == 0) << told;
    EXPECT_EQ(counts.undelivered, 0) << told;
    EXPECT_LE(counts.wrong, troubles <= 1 && !(stray && glued) ? 0 : troubles) << told;
    world.run(world.now + 10000 * MS);
    std::string text;
    world.commands = static_cast<int>(plans.size());
    EXPECT_TRUE(world.exchange(ASKS[0], &text) && text.ends_with("+CSQ: 99,4\r\n\r\nOK\r\n"))
        << told << " then <" << text << ">";
    sum->runs++;
    sum->right += counts.right;
    sum->wrong += counts.wrong;
    sum->undelivered += counts.undelivered;
    sum->no_answer += counts.no_answer;
}

void play_all(const Ask &a, const Ask &b, const Ask &c, Counts *counts)
{
    static const bool every = getenv("CELMUX_LINK_EVERY"); // some minutes
    for (int i = 0; i < BEHAVIOURS * BEHAVIOURS * BEHAVIOURS; i++) {
        const int chosen[] = {i % BEHAVIOURS, i / BEHAVIOURS % BEHAVIOURS, i / BEHAVIOURS / BEHAVIOURS};
        std::vector<Plan> plans = {{&a, static_cast<Behaviour>(chosen[0])},
                                   {&b, static_cast<Behaviour>(chosen[1])},
                                   {&c, static_cast<Behaviour>(chosen[2])}};
        play(plans, nullptr, 0, counts);
        if (!every && std::count(chosen, chosen + 3, ANSWERS) < 2)
            continue;
        for (int place = 0; place < 3 * PLACES; place++)
            for (const char *stray : {"OK", "ERROR", "NO CARRIER"})
                play(plans, stray, place, counts);
    }
}

TEST(LinkMachine, EveryCombinationOfThreeCommandsAndTheirTroubles)
{
    Counts counts = {};
    for (const Ask &a : ASKS)
        for (const Ask &b : ASKS)
            for (const Ask &c : ASKS)
                play_all(a, b, c, &counts);
    printf(
        "%ld runs: %ld right, %ld wrong (two troubles, or glued to the answer), %ld undelivered, %ld without answer\n",
        counts.runs, counts.right, counts.wrong, counts.undelivered, counts.no_answer);
}

// A daemon that was killed between AT+CMGS and its prompt leaves that to the next one.
TEST(LinkMachine, APromptOfAnOlderCommandIsNoAnswer)
{
    World world;
    world.plans = {{&ASKS[0], ANSWERS}, {&ASKS[0], ANSWERS}, {&ASKS[2], ANSWERS}};
    std::string text;
    EXPECT_TRUE(world.exchange(ASKS[0], &text)); // in step
    world.say(world.now + 5 * MS, "\r\n> ");
    world.busy_until = world.now + 50 * MS;
    EXPECT_TRUE(world.exchange(ASKS[0], &text));
    EXPECT_EQ(text, lines({"+CSQ: 99,2", "OK"}));
    EXPECT_NE(std::find(world.seen.rbegin(), world.seen.rend(), LINK_ESCAPE), world.seen.rend());
    world.say(world.now + 5 * MS, "\r\n> "); // now it is the answer of a command that asks for nothing
    world.busy_until = world.now + 50 * MS;
    EXPECT_TRUE(world.exchange(ASKS[2], &text));
}

// Everything asked meanwhile is lost, or answered in its order when the modem is back.
TEST(LinkMachine, ASilenceOfAnyLengthShiftsNothing)
{
    for (int64_t seconds : {1, 2, 4, 6, 9, 13, 40, 100}) {
        for (bool lost : {true, false}) {
            World world;
            world.plans.assign(200, {&ASKS[0], ANSWERS});
            std::string text;
            EXPECT_TRUE(world.exchange(ASKS[0], &text));
            const int64_t begin = world.now, back = begin + seconds * 1000 * MS;
            world.deaf = lost;
            world.busy_until = lost ? 0 : back;
            int64_t served = 0;
            for (int i = 0; i < 50 && !served; i++) {
                uint32_t number =
                    machine_submit(&world.machine, strdup("AT+CSQ\r"), "+CSQ:", LinkCaller::waits, world.now);
                const int64_t end = world.now + TIMEOUT;
                if (world.deaf && end > back) {
                    world.run(back, number);
                    world.deaf = false;
                }
                world.run(end, number);
                if (!world.answers.contains(number)) {
                    char *late;
                    EXPECT_TRUE(machine_abandon(&world.machine, number, world.now, &late));
                    free(late);
                } else if (world.answers[number].first) {
                    served = world.now;
                    text = world.answers[number].second;
                }
            }
            EXPECT_EQ(text, lines({"+CSQ: 99," + std::to_string(world.commands), "OK"}))
                << seconds << " s, lost " << lost;
            EXPECT_LE(served - back, (seconds > 60 ? 6000 : 2500) * MS) << seconds << " s, lost " << lost;
        }
    }
}

// However a message ends, the next command is not taken for its text.
TEST(LinkMachine, AMessageIsNotLeftAtItsPrompt)
{
    const struct {
        const char *prompt, *behind;
        bool goes_on, escape;
    } rows[] = {
        {"\r\n> ", "", true, false},         {"\r\n> \r\n+CREG: 1\r\n", "", true, false},
        {"\r\n> ", "\r\n> ", true, false},   {"\r\n> ", "\r\nOK\r\n", false, true}, // a stray one
        {"\r\nERROR\r\n", "", false, false},
    };
    for (const auto &row : rows) {
        World world;
        world.plans = {{&ASKS[0], ANSWERS}, {&ASKS[2], NEVER}, {&ASKS[0], ANSWERS}};
        std::string text;
        EXPECT_TRUE(world.exchange(ASKS[0], &text));
        uint32_t number = machine_submit(&world.machine, strdup("AT+CMGS=20\r"), nullptr, LinkCaller::sends, world.now);
        world.write_out();
        world.feed(row.prompt);
        EXPECT_TRUE(world.answers.contains(number)) << row.prompt;
        world.feed(row.behind);
        world.run(world.now + 50 * MS);
        world.seen.clear();
        world.answers.erase(number);
        EXPECT_EQ(machine_send_message(&world.machine, number, "0011"), row.goes_on);
        if (row.goes_on) {
            world.plans.insert(world.plans.begin(), 2, {&ASKS[2], NEVER}); // the text and its end
            world.run(world.now + 10 * MS);
            world.feed("\r\n+CMGS: 1\r\n\r\nOK\r\n");
            EXPECT_EQ(world.answers[number].second, lines({"+CMGS: 1", "OK"})) << row.prompt;
        }
        world.plans.assign(10, {&ASKS[0], ANSWERS});
        EXPECT_TRUE(world.exchange(ASKS[0], &text)) << row.prompt << row.behind;
        EXPECT_EQ(std::count(world.seen.begin(), world.seen.end(), LINK_ESCAPE), row.escape) << row.prompt;
    }
}

TEST(LinkMachine, AMarkThatIsLostIsRenewedBehindADoubtfulAnswer)
{
    World world;
    world.warm_up();
    const Ask ask = {"AT+CREG?\r", nullptr, nullptr, "OK"};
    world.plans = {{&ask, ANSWERS}};
    const int64_t begin = world.now;
    uint32_t number = machine_submit(&world.machine, strdup(ask.command), nullptr, LinkCaller::waits, begin);
    world.run(begin + 10 * MS);
    world.deaf = true; // for the mark
    world.run(begin + 500 * MS);
    world.deaf = false;
    world.run(begin + TIMEOUT, number);
    EXPECT_EQ(world.answers[number].second, lines({"OK"}));
    EXPECT_LT(world.now - begin, 1500 * MS);
}

TEST(LinkMachine, TheErrorOfAnOlderCommandIsNotTheAnswerToAQuestion)
{
    World world;
    world.warm_up();
    world.plans = {{&ASKS[3], NEVER}};
    std::string text;
    EXPECT_FALSE(world.exchange(ASKS[3], &text));
    world.say(world.now + 15 * MS, lines({"ERROR"}));
    EXPECT_TRUE(world.exchange({"AT+CGSN=1\r", "+CGSN:", nullptr, nullptr}, &text)); // sent without a mark before it
    EXPECT_EQ(text, lines({"+CGSN: \"8\"", "OK"}));
}

TEST(LinkMachine, AnOlderResultWithoutItsLineEndIsNoAnswer)
{
    World world;
    world.plans.assign(3, {&ASKS[2], ANSWERS});
    std::string text;
    EXPECT_TRUE(world.exchange(ASKS[2], &text)); // in step
    world.feed("\r\nERROR\r");
    EXPECT_TRUE(world.exchange(ASKS[2], &text));
    EXPECT_EQ(text, lines({"OK"}));
}

// Messages may hold lines "OK", so that the end of a listing in text form is in doubt.
TEST(LinkMachine, AListingTooLongIsAFailureAndNotCut)
{
    for (size_t messages : {3, 300}) {
        World world;
        world.warm_up();
        const std::string piece = "+CMGL: 1,\"REC READ\",\"1\"\r\n" + std::string(1000, 'x') + "\r\nOK\r\n";
        std::string whole;
        for (size_t i = 0; i < messages; i++)
            whole += piece;
        const Ask ask = {"AT+CMGL=\"ALL\"\r", nullptr, nullptr, "OK"};
        world.plans = {{&ask, NEVER}};
        uint32_t number = machine_submit(&world.machine, strdup(ask.command), nullptr, LinkCaller::waits, world.now);
        world.write_out();
        world.feed(whole + "\r\nOK\r\n");
        world.run(world.now + TIMEOUT, number);
        EXPECT_EQ(world.answers[number].first, messages == 3);
        EXPECT_EQ(world.answers[number].second, messages == 3 ? whole + "\r\nOK\r\n" : "");
    }
}

} // namespace
