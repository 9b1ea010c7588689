#include "adversary.h"

#include <algorithm>
#include <fmt/format.h>

static const char *const foreign_lines[] = {
    "+CEREG: 2,1",     "+CTZV: +8,1", "+GTDUALSIM: 0,\"SUB1\",\"No Service\"", "+CGEV: ME PDN ACT 1", "RING",
    "+CMTI: \"SM\",3", "+CREG: 5"};
static const char *const dialling_results[] = {"NO CARRIER", "BUSY", "NO ANSWER",
                                               "CONNECT"}; // reports for all other commands

bool carries_a_name(const std::string &line)
{
    return line.starts_with('+') && !line.starts_with("+CME ERROR") && !line.starts_with("+CMS ERROR") &&
           std::find(std::begin(foreign_lines), std::end(foreign_lines), line) == std::end(foreign_lines);
}

std::string from_environment(const char *name, const char *otherwise)
{
    const char *value = getenv(name);
    return value ? value : otherwise;
}

std::vector<int> numbers_in(const std::string &text)
{
    std::vector<int> numbers;
    for (size_t at = 0; at < text.size(); at = std::min(text.find(',', at), text.size() - 1) + 1)
        numbers.push_back(atoi(text.c_str() + at));
    return numbers;
}

Given Adversary::answer_to(const std::string &command, size_t n)
{
    const std::string tag = fmt::format("\"#{}{}\"", n, strikes("eight") ? " M\xC3\xBCnchen" : "");
    Given own;
    own.answered = true;
    auto is = [&](const char *start) { return command.starts_with(start); };
    if (is("AT+CGSN=1"))
        own.lines = {fmt::format("+CGSN: {:015}", n)};
    else if (is("AT+CIMI?"))
        own.lines = {fmt::format("+CIMI: {:015}", n)};
    else if (is("AT+CCID"))
        own.lines = {fmt::format("+CCID: {:020}", n)};
    else if (is("AT+CGMR?"))
        own.lines = {fmt::format("+CGMR: \"OK{}\"", n)};
    else if (is("AT+GTRAT=?"))
        for (own.lines = {"+GTRAT: "}; own.lines[0].size() < 900;)
            own.lines[0] += fmt::format("{:07}", n);
    else if (is("AT+CGDCONT?"))
        own.lines = {fmt::format("+CGDCONT: 1,\"IPV4V6\",\"apn{}\",\"0.0.0.0\",0,0", n),
                     "+CGDCONT: 2,\"IP\",\"ims\",\"0.0.0.0\",0,0"};
    else if (is("AT+CGACT?"))
        for (char digit : fmt::format("{:07}", n))
            own.lines.push_back(fmt::format("+CGACT: {},{}", own.lines.size() + 1, digit));
    else if (is("at+csq"))
        own.lines = {fmt::format("+CSQ: {},99", n)};
    else if (is("AT+CSIM="))
        own.lines = {"+CSIM: 8," + tag};
    else if (is("AT+CMGL=\""))
        for (const char *text : {"OK, see you then", "ERROR is a strong word", "BUSY day", "said \"OK\""}) {
            own.lines.push_back(
                fmt::format("+CMGL: {},\"REC READ\",{},,\"24/03/01,10:00:00+04\"", own.lines.size() / 2, tag));
            own.lines.push_back(text);
        }
    else if (is("AT+GTLONG="))
        for (int i = 0; i < 1000; i++)
            own.lines.push_back(fmt::format("+GTLONG: {},{},{:080}", tag, i, i));
    else if (is("AT+CRSM="))
        own.lines = {"+CRSM: 144,0,\"\""};
    else if (command.ends_with('\x1A'))
        own.lines = {fmt::format("+CMGS: {}", n % 256)};
    else
        own.answered = is("AT+CGACT=1") || is("AT+CGDCONT=");
    bool setter = own.answered && own.lines.empty();
    if (own.answered && (setter ? random_() % 3 == 0 : strikes("refused"))) {
        own.lines.clear();
        own.final = random_() % 2 ? "ERROR" : command.ends_with('\x1A') ? "+CMS ERROR: 500" : "+CME ERROR: 50";
    }
    return own;
}

// What may stand in and around an answer without making it another one.
std::string Adversary::spoil(const std::string &command, std::string text)
{
    if (strikes("foreign")) {
        std::vector<size_t> places = {0, text.size()};
        for (size_t at = text.find('\n', 2); at != text.npos; at = text.find('\n', at + 1))
            places.push_back(at + 1);
        text.insert(places[random_() % places.size()], one_of(foreign_lines));
    }
    if (strikes("echo") && !command.ends_with('\x1A'))
        text = command + "\r" + text;
    if (strikes("cr"))
        std::erase(text, '\n');
    if (strikes("nul")) {
        text.insert(0, 1, '\0');
        text.insert(random_() % text.size(), 1, '\0');
    }
    return text;
}

std::vector<Piece> Adversary::pace(const std::string &text)
{
    std::vector<Piece> pieces = {{between(0, 3) / 1.0, text}};
    bool dribble = text.size() < 1000 && strikes("dribble");
    for (int cuts = dribble             ? static_cast<int>(text.size()) - 1
                    : strikes("pauses") ? between(1, 3)
                                        : 0;
         cuts > 0; cuts--) {
        std::string last = pieces.back().bytes;
        size_t at = dribble ? 1 : 1 + random_() % std::max<size_t>(last.size() - 1, 1);
        pieces.back().bytes = last.substr(0, at);
        pieces.push_back(
            {dribble ? between(0, 5) / 1.0 : between(2, 50) / 1.0, last.substr(std::min(at, last.size()))});
    }
    return pieces;
}

// The repetition of an answer that is a final result alone is a stray one too.
void Adversary::add_strays(Course &course, Given &own, size_t number)
{
    bool before = random_() % 2;
    auto add = [&](const std::string &text) {
        course.pieces.insert(before ? course.pieces.begin() : course.pieces.end(), {between(0, 5) / 1.0, text});
        course.whole += before && course.whole > 0;
    };
    if (course.whole > 0 && strikes("twice")) {
        std::string again;
        for (const Piece &piece : course.pieces)
            again += piece.bytes;
        course.pieces.push_back({between(5, 300) / 1.0, again});
        own.twice = true;
        if (own.lines.empty())
            strays.push_back(number);
        else
            repeats++;
    }
    if (strikes("report"))
        add(one_of(dialling_results));
    if (strikes("stray")) {
        add(framed({}, random_() % 2 ? "OK" : "ERROR"));
        strays.push_back(number);
    }
}

void Adversary::strike_fate(Course &course, Given &own)
{
    static const std::vector<int> late = numbers_in(from_environment("CELMUX_MIX_LATE", "300,1200"));
    if (strikes("late"))
        course.pieces[0].pause_ms += between(late[0], late[1]);
    bool cut = strikes("cut");
    if (cut)
        course.pieces = {{1, course.pieces[0].bytes.substr(0, course.pieces[0].bytes.size() / 2)}};
    bool never = strikes("never");
    if (never)
        course.pieces.clear();
    if (strikes("deaf"))
        course.deaf_ms = between(300, 2000);
    if (strikes("port"))
        course.away_ms = between(100, 1500);
    own.answered = !cut && !never;
    course.whole = own.answered && course.away_ms == 0 ? course.pieces.size()
                                                       : 0; // what goes out just before a loss may be lost too
}

Course Adversary::operator()(const std::string &text, size_t number)
{
    std::lock_guard lock(mutex);
    if (text.starts_with("AT+CMGS=")) {
        Course course = at_once("\r\n> ", between(0, 20));
        course.prompt = true;
        course.away_ms = strikes("port") || strikes("prompt_port") ? 200 : 0;
        return course;
    }
    Given &own = given[number] = answer_to(text, number);
    bool asked_by_client = own.answered;
    Course course;
    course.pieces =
        pace(spoil(text, own.lines.empty() && !asked_by_client ? usual_answer(text) : framed(own.lines, own.final)));
    course.whole = course.pieces.size();
    if (text == "AT+COPS=?")
        course.pieces[0].pause_ms += 150;
    if (asked_by_client)
        strike_fate(course, own);
    add_strays(course, own, number);
    return course;
}
