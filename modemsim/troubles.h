#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

enum class TroubleKind {
    split,       ///< the answer goes out in pieces with pauses between them
    late,        ///< the answer goes out `ms` later; the modem takes further commands meanwhile
    never,       ///< the command is carried out, its answer is lost
    twice,       ///< the answer goes out again `ms` later
    unsolicited, ///< `text` as a line of its own `where` the answer is, with pauses of `ms` around it
    rubbish,     ///< `bytes` random bytes `where` the answer is
    endless,     ///< `bytes` characters without a line end instead of the answer, or before it
    error,       ///< the command is not carried out and answered with `text`
    cut,         ///< only the beginning of the answer goes out, up to `at`
    instead,     ///< the bytes `text` go out instead of the answer
    vanish,      ///< the port goes away for `ms`: in the middle of the answer, or when the command is written
    echo,        ///< echo is on again
    holds,       ///< the line `text` (such as one with OK or ERROR) stands in the middle of the answer
    silent,      ///< nothing goes out for `ms` (0: for ever); without a trigger from the start
};

enum class Where { before, inside, after, anywhere };
enum class Stage { answer, prompt };

struct Range {
    int64_t low = 0;
    int64_t high = 0;
};

/// One trouble and its triggers. It strikes when all triggers that are given hold.
struct TroubleRule {
    TroubleKind kind = TroubleKind::split;
    std::string command;               ///< the command line begins so (case does not matter)
    std::optional<int64_t> nth;        ///< the n-th of those commands, counted from 1
    std::optional<int64_t> every;      ///< each n-th of them
    std::optional<double> probability; ///< 0 to 1
    int64_t times = -1;                ///< at most so often; -1 without a limit

    Range ms;
    int64_t bytes = 0;
    std::optional<int64_t> at; ///< split, cut: after this byte; otherwise anywhere
    int64_t parts = 2;         ///< split: number of pieces; 0 one for each byte
    std::string text;
    Where where = Where::before;
    Stage stage = Stage::answer; ///< of AT+CMGS: what is troubled
    bool reset = false;          ///< vanish: the modem restarts
    bool answer = false;         ///< endless: the answer follows
    bool busy = false;           ///< late: the modem takes no further commands meanwhile

    int64_t seen = 0;   ///< commands that matched `command`
    int64_t struck = 0; ///< how often it struck
};

/// Rules live as long as an answer that they strike, also when they are cleared meanwhile.
using RulePtr = std::shared_ptr<TroubleRule>;

struct Chunk {
    std::string text;
    int64_t pause_ms = 0; ///< before it goes out
};

/// How one answer goes out.
struct AnswerPlan {
    std::vector<Chunk> chunks;
    int64_t late_ms = 0;
    bool late_busy = false; ///< the modem is busy until it is out
    bool lost = false;
    bool intact = true; ///< the answer goes out whole and unaltered
    RulePtr vanish;     ///< strikes once the chunks are out
};

/// The troubles that strike one command.
using Strikes = std::vector<RulePtr>;

/// Decides by seed and triggers which command meets which trouble.
class Troubles {
public:
    void seed(uint64_t value);
    void add(TroubleRule rule);
    void clear();
    const std::vector<RulePtr> &rules() const;
    const std::map<std::string, int64_t> &counts() const;

    /// The troubles that strike this command; counts it for all rules.
    Strikes strike(std::string_view line);
    /// The silence that reigns from the start; null without one.
    RulePtr initial_silence();
    /// The way of an answer (or a prompt) under these troubles.
    AnswerPlan plan(const Strikes &strikes, Stage stage, std::string answer);
    int64_t draw(Range range);

private:
    void count(const TroubleRule &rule);
    std::string random_bytes(int64_t size);
    size_t insert(std::string &answer, const std::string &text, Where where, bool at_line);
    void insert_report(const TroubleRule &rule, std::string &answer, std::map<size_t, int64_t> &pauses);
    void split(const TroubleRule &rule, std::vector<Chunk> &chunks);

    std::mt19937_64 random_{1};
    std::vector<RulePtr> rules_;
    std::map<std::string, int64_t> counts_;
};

/// The first of `strikes` of this kind and stage; null without one.
RulePtr find_strike(const Strikes &strikes, TroubleKind kind, Stage stage = Stage::answer);

/// The name of a kind as profiles write it.
std::string_view trouble_name(TroubleKind kind);
std::optional<TroubleKind> trouble_kind(std::string_view name);

} // namespace modemsim
