#include "ledger.h"

using nlohmann::json;

// The text of a stored message in as far as it is ASCII.
static std::string text_of(const json &message)
{
    std::string text;
    bool wide = message.value("alphabet", "") == "UCS2";
    const json &bytes = message.at("message");
    for (size_t i = wide ? 1 : 0; i < bytes.size(); i += wide ? 2 : 1)
        text += static_cast<char>(bytes[i].get<int>());
    return text;
}

// The first "m<number>," of the text, or all of a filler's; empty without a key.
static std::string key_in(const std::string &text)
{
    constexpr const char *digits = "0123456789";
    if (text.starts_with("filler "))
        return text;
    for (size_t at = text.find('m'); at != std::string::npos; at = text.find('m', at + 1)) {
        size_t end = text.find_first_not_of(digits, at + 1);
        if (end != std::string::npos && end > at + 1 && text[end] == ',')
            return text.substr(at, end - at + 1);
    }
    return "";
}

std::string Ledger::next_key()
{
    std::lock_guard lock(mutex_);
    return "m" + std::to_string(next_++) + ",";
}

void Ledger::sent(const std::string &key, const std::string &text, const std::vector<uint64_t> &ids)
{
    std::lock_guard lock(mutex_);
    Entry &entry = entries_[key];
    entry.text = text;
    entry.ids = ids;
    entry.client_deleted = entry.client_deleted || std::stoull(key.substr(1)) < all_deleted_below_;
    for (uint64_t id : ids)
        key_of_id_[id] = key;
    figures_.sent++;
    figures_.parts += ids.size();
}

void Ledger::deleted_by_client(const json &message)
{
    std::string key = key_in(text_of(message));
    std::lock_guard lock(mutex_);
    if (!key.empty())
        entries_[key].client_deleted = true; // may be there before sent() is
}

void Ledger::all_deleted_by_client()
{
    std::lock_guard lock(mutex_);
    for (auto &[key, entry] : entries_)
        entry.client_deleted = true;
    all_deleted_below_ = next_;
    fillers_deleted_ = true;
}

// `modemsim ctl fill` makes messages of its own, whose number is in their text.
void Ledger::find_fillers(const json &history)
{
    for (; history_seen_ < history.size(); history_seen_++) {
        uint64_t id = history[history_seen_].at("id");
        if (key_of_id_.contains(id))
            continue;
        std::string key = "filler " + std::to_string(id);
        key_of_id_[id] = key;
        entries_[key].text = key;
        entries_[key].ids = {id};
        entries_[key].client_deleted = entries_[key].client_deleted || fillers_deleted_;
        figures_.sent++;
        figures_.parts++;
    }
}

std::string Ledger::verify_entry(const std::string &key, Entry &entry, const json &history,
                                 const std::vector<std::string> &texts)
{
    bool deleted = !entry.ids.empty();
    bool handed_over = true;
    std::string reads;
    for (uint64_t id : entry.ids) {
        const json &part = history.at(id - 1);
        deleted = deleted && part.at("deleted").get<bool>();
        handed_over = handed_over && part.at("handed_over").get<int>() > 0;
        reads += " " + part.dump();
    }
    if (entry.done)
        return texts.empty() ? "" : "came back: " + key + reads;
    if (texts.size() > 1)
        return "stored " + std::to_string(texts.size()) + " times: " + key + reads;
    if (deleted && handed_over && !entry.client_deleted && (texts.empty() || texts.front() != entry.text))
        return (texts.empty() ? "lost: " : "not whole: ") + key + reads + (texts.empty() ? "" : "\n" + texts.front());
    if (deleted) {
        entry.done = true;
        size_t &figure = !texts.empty() && texts.front() == entry.text ? figures_.kept_whole
                         : entry.client_deleted                        ? figures_.deleted
                                                                       : figures_.altered;
        figure++;
    } else if (!texts.empty()) {
        entry.client_deleted = true; // by the one who called this
    }
    return "";
}

std::string Ledger::verify(const json &history, const json &stored)
{
    std::lock_guard lock(mutex_);
    find_fillers(history);
    std::map<std::string, std::vector<std::string>> texts;
    for (const json &message : stored) {
        std::string text = text_of(message);
        texts[key_in(text)].push_back(text);
    }
    std::string faults;
    for (auto &[key, entry] : entries_) {
        std::string fault = verify_entry(key, entry, history, texts[key]);
        if (!fault.empty())
            faults += fault + "\n";
    }
    fillers_deleted_ = false;
    return faults;
}

LedgerFigures Ledger::figures() const
{
    std::lock_guard lock(mutex_);
    return figures_;
}
