#include "troubles.h"

#include <algorithm>
#include <set>
#include <strings.h>

namespace modemsim {

namespace {

struct KindName {
    TroubleKind kind;
    std::string_view name;
};

constexpr KindName kind_names[] = {
    {TroubleKind::split, "split"},
    {TroubleKind::late, "late"},
    {TroubleKind::never, "never"},
    {TroubleKind::twice, "twice"},
    {TroubleKind::unsolicited, "unsolicited"},
    {TroubleKind::rubbish, "rubbish"},
    {TroubleKind::endless, "endless"},
    {TroubleKind::error, "error"},
    {TroubleKind::cut, "cut"},
    {TroubleKind::instead, "instead"},
    {TroubleKind::vanish, "vanish"},
    {TroubleKind::echo, "echo"},
    {TroubleKind::holds, "holds"},
    {TroubleKind::silent, "silent"},
};

bool begins_with(std::string_view line, std::string_view prefix)
{
    return line.size() >= prefix.size() && strncasecmp(line.data(), prefix.data(), prefix.size()) == 0;
}

bool from_start(const TroubleRule &rule)
{
    return rule.kind == TroubleKind::silent && rule.command.empty() && !rule.nth && !rule.every && !rule.probability;
}

/// The places between two lines of the answer: behind each line end, except the answer's own last one.
std::vector<size_t> line_places(const std::string &answer)
{
    std::vector<size_t> places;
    for (size_t i = answer.find('\n'); i != answer.npos && i + 1 < answer.size(); i = answer.find('\n', i + 1))
        places.push_back(i + 1);
    return places;
}

/// Cuts where pauses are due; they hold for the text as it stands when all insertions have been made.
std::vector<Chunk> chunks_of(const std::string &answer, const std::map<size_t, int64_t> &pauses)
{
    std::vector<Chunk> chunks;
    size_t from = 0;
    int64_t pause = 0;
    for (const auto &[place, ms] : pauses) {
        if (place > from && place < answer.size()) {
            chunks.push_back({answer.substr(from, place - from), pause});
            from = place;
            pause = ms;
        }
    }
    chunks.push_back({answer.substr(from), pause});
    return chunks;
}

} // namespace

void Troubles::seed(uint64_t value)
{
    random_.seed(value);
}

void Troubles::add(TroubleRule rule)
{
    rules_.push_back(std::make_shared<TroubleRule>(std::move(rule)));
}

void Troubles::clear()
{
    rules_.clear();
}

const std::vector<RulePtr> &Troubles::rules() const
{
    return rules_;
}

const std::map<std::string, int64_t> &Troubles::counts() const
{
    return counts_;
}

void Troubles::count(const TroubleRule &rule)
{
    counts_[std::string(trouble_name(rule.kind))]++;
}

int64_t Troubles::draw(Range range)
{
    if (range.high <= range.low)
        return range.low;
    return range.low + static_cast<int64_t>(random_() % static_cast<uint64_t>(range.high - range.low + 1));
}

Strikes Troubles::strike(std::string_view line)
{
    Strikes strikes;
    for (const RulePtr &entry : rules_) {
        TroubleRule &rule = *entry;
        if (from_start(rule) || !begins_with(line, rule.command))
            continue;
        rule.seen++;
        bool hit = !rule.nth || rule.seen == *rule.nth;
        hit = hit && (!rule.every || (*rule.every > 0 && rule.seen % *rule.every == 0));
        if (hit && rule.probability)
            hit = static_cast<double>(random_() >> 11) * 0x1p-53 < *rule.probability;
        if (!hit || (rule.times >= 0 && rule.struck >= rule.times))
            continue;
        rule.struck++;
        count(rule);
        strikes.push_back(entry);
    }
    return strikes;
}

RulePtr Troubles::initial_silence()
{
    for (const RulePtr &rule : rules_)
        if (from_start(*rule) && rule->struck == 0) {
            rule->struck++;
            count(*rule);
            return rule;
        }
    return nullptr;
}

std::string Troubles::random_bytes(int64_t size)
{
    std::string bytes;
    for (int64_t i = 0; i < size; i++)
        bytes += static_cast<char>(random_() & 0xFF);
    return bytes;
}

size_t Troubles::insert(std::string &answer, const std::string &text, Where where, bool at_line)
{
    size_t place = 0;
    if (where == Where::after) {
        place = answer.size();
    } else if (where == Where::inside && at_line) {
        std::vector<size_t> places = line_places(answer);
        if (!places.empty())
            place = places[random_() % places.size()];
    } else if (where != Where::before && answer.size() > 1) {
        place = 1 + random_() % (answer.size() - 1);
    }
    answer.insert(place, text);
    return place;
}

/// With a pause on both sides the report is a burst of its own.
void Troubles::insert_report(const TroubleRule &rule, std::string &answer, std::map<size_t, int64_t> &pauses)
{
    std::string report = "\r\n" + rule.text + "\r\n";
    size_t place = insert(answer, report, rule.where, rule.where != Where::anywhere);
    std::map<size_t, int64_t> moved;
    for (const auto &[at, ms] : pauses)
        moved[at < place ? at : at + report.size()] = ms;
    if (rule.ms.high > 0) {
        moved[place] = draw(rule.ms);
        moved[place + report.size()] = draw(rule.ms);
    }
    pauses = std::move(moved);
}

void Troubles::split(const TroubleRule &rule, std::vector<Chunk> &chunks)
{
    std::string whole;
    for (const Chunk &chunk : chunks)
        whole += chunk.text;
    std::set<size_t> cuts;
    if (rule.at) {
        cuts.insert(static_cast<size_t>(*rule.at));
    } else if (rule.parts == 0) {
        for (size_t i = 1; i < whole.size(); i++)
            cuts.insert(i);
    } else if (whole.size() > 1) {
        for (int64_t i = 1; i < rule.parts; i++)
            cuts.insert(1 + random_() % (whole.size() - 1));
    }
    chunks.clear();
    size_t from = 0;
    for (size_t cut : cuts) {
        if (cut <= from || cut >= whole.size())
            continue;
        chunks.push_back({whole.substr(from, cut - from), from == 0 ? 0 : draw(rule.ms)});
        from = cut;
    }
    chunks.push_back({whole.substr(from), from == 0 ? 0 : draw(rule.ms)});
}

AnswerPlan Troubles::plan(const Strikes &strikes, Stage stage, std::string answer)
{
    AnswerPlan plan;
    std::map<size_t, int64_t> pauses;
    for (const RulePtr &rule : strikes) {
        if (rule->stage != stage)
            continue;
        switch (rule->kind) {
        case TroubleKind::holds:
            insert(answer, rule->text + "\r\n", Where::inside, true);
            plan.intact = false;
            break;
        case TroubleKind::unsolicited:
            insert_report(*rule, answer, pauses);
            plan.intact = plan.intact && (rule->where == Where::before || rule->where == Where::after);
            break;
        case TroubleKind::cut:
            answer.resize(
                std::min(answer.size(), rule->at ? static_cast<size_t>(*rule->at) : random_() % (answer.size() + 1)));
            plan.intact = false;
            break;
        case TroubleKind::instead:
            answer = rule->text;
            plan.intact = false;
            break;
        case TroubleKind::rubbish:
            insert(answer, random_bytes(rule->bytes), rule->where, false);
            plan.intact = false;
            break;
        case TroubleKind::endless:
            answer = std::string(static_cast<size_t>(rule->bytes), 'x') + (rule->answer ? answer : "");
            plan.intact = false;
            break;
        default: // the others do not change the text
            break;
        }
    }
    plan.chunks = chunks_of(answer, pauses);
    if (RulePtr rule = find_strike(strikes, TroubleKind::split, stage))
        split(*rule, plan.chunks);
    if (RulePtr rule = find_strike(strikes, TroubleKind::twice, stage)) {
        std::vector<Chunk> again = plan.chunks;
        again.front().pause_ms = draw(rule->ms);
        plan.chunks.insert(plan.chunks.end(), again.begin(), again.end());
    }
    if (RulePtr rule = find_strike(strikes, TroubleKind::vanish, stage)) {
        std::string &last = plan.chunks.back().text;
        last.resize(last.empty() ? 0 : random_() % last.size());
        plan.vanish = rule;
        plan.intact = false;
    }
    if (RulePtr rule = find_strike(strikes, TroubleKind::late, stage)) {
        plan.late_ms = draw(rule->ms);
        plan.late_busy = rule->busy;
    }
    plan.lost = find_strike(strikes, TroubleKind::never, stage) != nullptr;
    plan.intact = plan.intact && !plan.lost;
    return plan;
}

RulePtr find_strike(const Strikes &strikes, TroubleKind kind, Stage stage)
{
    for (const RulePtr &rule : strikes)
        if (rule->kind == kind && rule->stage == stage)
            return rule;
    return nullptr;
}

std::string_view trouble_name(TroubleKind kind)
{
    for (const KindName &row : kind_names)
        if (row.kind == kind)
            return row.name;
    return {};
}

std::optional<TroubleKind> trouble_kind(std::string_view name)
{
    for (const KindName &row : kind_names)
        if (row.name == name)
            return row.kind;
    return std::nullopt;
}

} // namespace modemsim
