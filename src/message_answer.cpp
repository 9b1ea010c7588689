#include "message_answer.h"

#include <cstdlib>

#include "text_cut.h"

constexpr std::string_view READ_HEADER = "+CMGR:";
constexpr std::string_view LIST_HEADER = "+CMGL:";

static bool is_header(std::string_view line)
{
    return line.starts_with(READ_HEADER) || line.starts_with(LIST_HEADER);
}

static bool is_pdu_text(std::string_view line)
{
    return line.size() > 8 && line.find_first_not_of("0123456789ABCDEFabcdef") == std::string_view::npos;
}

// "+CMGR: <stat>,[<alpha>],<length>" or "+CMGL: <index>,<stat>,[<alpha>],<length>".
static void read_header(std::string_view line, MessageEntry *entry)
{
    std::string_view fields = line.substr(READ_HEADER.size()), field;
    *entry = {-1, -1, -1, false, {}};
    if (line.starts_with(LIST_HEADER) && next_field(&fields, &field))
        entry->place = leading_int(field);
    if (!next_field(&fields, &field))
        return;
    field = trimmed(field);
    entry->text_mode = field.starts_with('"');
    if (!field.empty())
        entry->status = leading_int(field);
    size_t comma = fields.rfind(','); // a name may hold others
    if (comma != std::string_view::npos)
        entry->length = leading_int(fields.substr(comma + 1));
}

bool next_entry(EntryWalk *walk, MessageEntry *entry)
{
    std::string_view line;
    bool found = false;
    while (!found && next_line(&walk->rest, &line)) {
        found = is_header(line);
        walk->stray = walk->stray || (!found && is_pdu_text(line));
    }
    if (!found)
        return false;
    read_header(line, entry);
    for (std::string_view behind = walk->rest; next_line(&behind, &line) && !is_header(line) && line != "OK";) {
        walk->rest = behind;
        if (line.starts_with('+')) // a report that came in between
            continue;
        entry->pdu = trimmed(line);
        break;
    }
    return true;
}

// The octet at that position, or -1.
static int octet_at(std::string_view pdu, size_t place)
{
    uint64_t value;
    return 2 * place + 2 <= pdu.size() && parse_hex(pdu.substr(2 * place, 2), &value) ? static_cast<int>(value) : -1;
}

static bool has_stated_length(const MessageEntry &entry)
{
    int centre = octet_at(entry.pdu, 0);
    return centre >= 0 && entry.pdu.size() % 2 == 0 &&
           static_cast<int64_t>(entry.pdu.size() / 2) - 1 - centre == entry.length;
}

EntryKind decode_entry(const MessageEntry &entry, bool strict, DecodedMessage **message)
{
    constexpr int32_t UNSENT = 2;
    constexpr int TYPE_MASK = 3, SUBMIT = 1, REPORT = 2; // TS 23.040 9.2.3.1
    if (entry.text_mode)
        return EntryKind::text_mode;
    if (entry.status >= UNSENT)
        return EntryKind::own;
    if (entry.pdu.empty())
        return entry.length <= 0 ? EntryKind::nothing : EntryKind::damaged;
    if (strict && !has_stated_length(entry))
        return EntryKind::damaged;
    DecodedMessage *decoded = nullptr;
    int result = decode_message(entry.pdu, &decoded);
    if (result != 0)
        return result == -2 ? EntryKind::no_memory : EntryKind::damaged;
    int type = octet_at(entry.pdu, static_cast<size_t>(octet_at(entry.pdu, 0)) + 1) & TYPE_MASK;
    if (type != SUBMIT && type != REPORT) {
        *message = decoded;
        return EntryKind::message;
    }
    free(decoded);
    return type == SUBMIT ? EntryKind::own : EntryKind::report;
}

uint64_t fingerprint_of(std::string_view pdu)
{
    uint64_t hash = 0xCBF29CE484222325; // FNV-1a
    for (char c : pdu)
        hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
    return hash ? hash : 1;
}
