// Runs the transcripts of tests/data/transcripts: sessions of a shell on a router, with what each command prints.
//
//   router JSON     a first line: the whole system runs, the simulated modem with this profile
//   $ COMMAND       a command; a line that begins with "> " continues it
//   ? COMMAND       the same, repeated until it prints what is expected, for what takes a moment
//   [N]             behind the output, standard error included: the exit status, unless it is 0
//   # TEXT          a comment; it belongs to the command below it
//   a line (re)     matched as a regular expression
//
// `modem WORDS` controls the simulated modem, `state POINTER` shows what is in it, `sent` what commands it got since
// the last time, `call METHOD [JSON]` calls the daemon, a step `restart` starts the daemon again. With
// CELMUX_KEEP_OUTPUT in the environment the outputs are written anew instead of being compared: look at the differences
// before keeping them.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>

#include "router.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct Step {
    std::string head; // the lines up to the command, as they stand
    std::string command;
    bool repeat = false;
    Lines expected;
};

static std::vector<Step> steps_of(const std::string &text)
{
    std::vector<Step> steps;
    std::string comment;
    for (const std::string &line : split_lines(text)) {
        if (line.starts_with("# ")) {
            comment += line + "\n";
        } else if (line.starts_with("$ ") || line.starts_with("? ")) {
            steps.push_back({comment + line + "\n", line.substr(2) + "\n", line[0] == '?', {}});
            comment.clear();
        } else if (line.starts_with("> ") && steps.back().expected.empty()) {
            steps.back().head += line + "\n";
            steps.back().command += line.substr(2) + "\n";
        } else {
            steps.back().expected.push_back(line);
        }
    }
    return steps;
}

static const char *const session = R"sh(
modem() { modemsim ctl --control /tmp/modem.control "$@" >/dev/null; }
state() { modemsim ctl --control /tmp/modem.control state "$@"; }
call() { ubus -S call celmux "$@"; }
sent() {
    tail -n +$(($(cat /tmp/sent) + 1)) /tmp/modem.record | cut -d' ' -f3- | sed 's/\\r$//'
    wc -l </tmp/modem.record >/tmp/sent
}
cat /tmp/modem.record 2>/dev/null | wc -l >/tmp/sent
mkdir -p /tmp/work; cd /tmp/work
while [ -e ../steps/$_step ]; do
    _tries=0
    while :; do
        . ../steps/$_step >../steps/$_step.out 2>&1 </dev/null
        _status=$?
        [ $_status = 0 ] || echo "[$_status]" >>../steps/$_step.out
        [ -e ../steps/$_step.until ] && ! cmp -s ../steps/$_step.out ../steps/$_step.until && [ $_tries -lt 200 ] || break
        _tries=$((_tries + 1))
        usleep 50000
    done
    _step=$((_step + 1))
done
)sh";

static std::string joined(const Lines &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

static bool matches(const std::string &line, const std::string &expected)
{
    constexpr std::string_view pattern = " (re)";
    if (!expected.ends_with(pattern))
        return line == expected;
    return std::regex_match(line, std::regex(expected.substr(0, expected.size() - pattern.size())));
}

// The steps from `first` on up to one that starts the daemon again; returns where it stopped.
static size_t run_session(PrivateRoot &root, const std::vector<Step> &steps, size_t first)
{
    size_t end = first;
    for (; end < steps.size() && steps[end].command != "restart\n"; end++) {
        std::string file = "/tmp/steps/" + std::to_string(end);
        root.write_file(file, steps[end].command);
        if (steps[end].repeat)
            root.write_file(file + ".until", joined(steps[end].expected));
    }
    EXPECT_EQ(root.shell("_step=" + std::to_string(first) + session, std::chrono::minutes(2)).status, 0);
    return end;
}

class Transcript : public testing::TestWithParam<fs::path> {};

TEST_P(Transcript, PrintsWhatItSays)
{
    std::string text = read_whole_file(GetParam()), first;
    if (text.starts_with("router "))
        first = text.substr(0, text.find('\n') + 1);
    const std::vector<Step> steps = steps_of(text.substr(first.size()));
    std::optional<Router> router;
    std::optional<PrivateRoot> root;
    if (first.empty())
        root.emplace();
    else
        router.emplace(first.substr(first.find(' ')));
    PrivateRoot &place = router ? router->root : *root;
    for (size_t next = 0; (next = run_session(place, steps, next)) < steps.size(); next++) {
        router.value().daemon.start_again();
        EXPECT_TRUE(router->wait_until_free());
    }
    std::string kept = first;
    for (size_t i = 0; i < steps.size(); i++) {
        const std::string output = place.read_file("/tmp/steps/" + std::to_string(i) + ".out");
        const Lines lines = split_lines(output);
        bool same = std::equal(lines.begin(), lines.end(), steps[i].expected.begin(), steps[i].expected.end(), matches);
        kept += steps[i].head + (same ? joined(steps[i].expected) : output);
        EXPECT_TRUE(same || getenv("CELMUX_KEEP_OUTPUT")) << steps[i].head << "printed\n"
                                                          << output << "and not\n"
                                                          << joined(steps[i].expected);
    }
    if (getenv("CELMUX_KEEP_OUTPUT"))
        std::ofstream(GetParam(), std::ios::binary) << kept;
}

static std::vector<fs::path> transcripts()
{
    std::vector<fs::path> paths(fs::directory_iterator(TEST_DATA_DIR "/transcripts"), fs::directory_iterator());
    std::sort(paths.begin(), paths.end());
    return paths;
}
INSTANTIATE_TEST_SUITE_P(Of, Transcript, testing::ValuesIn(transcripts()),
                         [](const auto &each) { return each.param.stem().string(); });
