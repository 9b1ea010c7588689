// What is known of how this modem answers: what it was asked of late, which commands it answers by their names, and how
// long it takes.

#include "link_memory.h"

#include <algorithm>
#include <cctype>
#include <span>

#include "link_exchange.h"
#include "link_text.h"

// An answer is early when it took less than three quarters of the shortest time. With more than one half, of an answer
// that is shifted by one command either this answer is early or the next.
constexpr int64_t EARLY_NUMERATOR = 3, EARLY_DENOMINATOR = 4;
constexpr int64_t EARLY_LEAST = 2 * MS; // a modem that is quicker than this tells nothing by its times

// FNV-1a of the capitals; tells texts apart, no more.
static uint32_t hash_of(std::string_view text)
{
    uint32_t hash = 0x811c9dc5;
    for (char each : text)
        hash = (hash ^ static_cast<unsigned char>(toupper(static_cast<unsigned char>(each)))) * 0x01000193;
    return hash;
}

// Of the command's name and form, as "AT+CSIM=".
static uint32_t name_hash(std::string_view command)
{
    size_t end = command.find_first_of("=?\r");
    return hash_of(command.substr(0, end < command.size() ? end + 1 : end));
}

static bool contains(std::span<const uint32_t> hashes, uint32_t hash)
{
    return std::find(hashes.begin(), hashes.end(), hash) != hashes.end();
}

void note_asked(LinkMachine *m, std::string_view command)
{
    std::string_view name = command.substr(0, command.find_first_of("=?\r"));
    m->asked[m->asked_count++ % LINK_RECENT] = {hash_of(name.substr(name.size() < 2 ? 0 : 2)), name_hash(command)};
}

// Is it the name of something that was asked before? Then a line with it is an answer, not a report that is not known.
bool was_asked(const LinkMachine *m, std::string_view name)
{
    for (const auto &asked : m->asked) {
        if (asked.name == hash_of(name))
            return true;
    }
    return false;
}

// Was the same name asked in another form before, as "AT+CSIM?" before "AT+CSIM=1"?
bool other_form_asked(const LinkMachine *m)
{
    const auto &now = m->asked[(m->asked_count - 1) % LINK_RECENT];
    for (const auto &asked : m->asked) {
        if (asked.name == now.name && asked.form != now.form)
            return true;
    }
    return false;
}

// An answer that is surely the command's own took so long.
void note_latency(LinkMachine *m, std::string_view command, int64_t took)
{
    m->recent[m->recent_count++ % LINK_RECENT] = took;
    if (!contains(m->named, name_hash(command)))
        m->named[m->named_count++ % LINK_NAMES] = name_hash(command);
}

// Has the modem lately answered this command with a line of its name?
bool answered_by_name(const LinkMachine *m)
{
    return contains(m->named, name_hash(m->due.text));
}

// Did the answer come sooner than the modem's recent ones? One with the command's name can only be another one's when
// the same was asked shortly before.
bool came_early(const LinkMachine *m, bool own, int64_t now)
{
    int64_t shortest = INT64_MAX;
    for (int64_t took : m->recent)
        shortest = took < shortest ? took : shortest;
    if (contains(m->quick, name_hash(m->due.text)))
        return false;
    return m->recent_count >= LINK_RECENT && (answered_by_name(m) || !own) && shortest >= EARLY_LEAST &&
           (now - m->sent_at) * EARLY_DENOMINATOR < shortest * EARLY_NUMERATOR;
}

void note_quick(LinkMachine *m)
{
    m->quick[m->quick_count++ % LINK_RECENT] = name_hash(m->due.text);
}
