#include "message_fetch.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "at_sms.h"
#include "at_text.h"
#include "config.h"
#include "link.h"
#include "log.h"
#include "message_answer.h"
#include "message_index.h"
#include "message_merge.h"
#include "message_store.h"
#include "message_unreadable.h"
#include "queues.h"
#include "result.h"
#include "uci_access.h"
#include "waiting.h"

constexpr int TRIES = 3;
constexpr uint32_t SHORT_PAUSE_MS = 100;
constexpr unsigned GROUP = 8;               // messages that one save serves
constexpr int64_t SHORTEST_PAUSE_MS = 1000; // between two listings that fail
constexpr int64_t LONGEST_PAUSE_MS = 300000;

// While the requester reads messages, it stores what the answers hold. The response processor does not store from those
// answers; it only counts them.
static std::atomic<uint8_t> reading{0};
static std::atomic<uint32_t> answers_left{0};
static std::atomic<uint8_t> at_once{0};

// A message whose place on the SIM is to be cleared.
struct Place {
    int32_t index;
    uint64_t fingerprint; // 0 when the message is not in the store
    bool after_save;      // the store must be on the disk before
};

struct Batch {
    Place places[GROUP];
    unsigned count;
    bool unread; // a message was added
};

// Called between two exchanges. A call of the bus that waits for its turn has just been woken and needs a moment to
// begin its exchange.
static void give_others_a_turn()
{
    constexpr useconds_t TURN_US = 200;
    (void)usleep(TURN_US);
}

// Logs the reason once; it is logged again only after everything that waited has been taken.
static void note_trouble(MessageFetch *fetch, const char *reason)
{
    if (!fetch->trouble)
        log_error("messages wait: %s", reason);
    fetch->trouble = true;
    g_sms_sweep.store(1);
}

static uint64_t *find_known(MessageFetch *fetch, uint64_t fingerprint)
{
    for (uint64_t &known : fetch->known) {
        if (known == fingerprint)
            return &known;
    }
    return nullptr;
}

static void remember(MessageFetch *fetch, uint64_t fingerprint)
{
    if (fingerprint == 0 || find_known(fetch, fingerprint))
        return;
    fetch->known[fetch->next_known] = fingerprint;
    fetch->next_known = (fetch->next_known + 1) % MOST_KNOWN;
}

static void forget(MessageFetch *fetch, uint64_t fingerprint)
{
    uint64_t *known = fingerprint ? find_known(fetch, fingerprint) : nullptr;
    if (known)
        *known = 0;
}

static void add_place(Batch *batch, int32_t index, uint64_t fingerprint, bool after_save)
{
    batch->places[batch->count++] = {index, fingerprint, after_save};
}

static void take_message(MessageFetch *fetch, const MessageEntry &entry, const DecodedMessage *message, Batch *batch)
{
    uint64_t fingerprint = fingerprint_of(entry.pdu);
    if (find_known(fetch, fingerprint)) {
        // A message that is not in the store any more was deleted by a client and must not come back.
        add_place(batch, entry.place, fingerprint, message_is_stored(message));
        return;
    }
    switch (offer_message(message, !fetch->trouble)) {
    case AddResult::added:
        batch->unread = true;
        break;
    case AddResult::duplicate:
        break;
    case AddResult::refused:
        note_trouble(fetch, "the store takes no more");
        return;
    }
    add_place(batch, entry.place, fingerprint, true);
}

static void take_unreadable(MessageFetch *fetch, const MessageEntry &entry, Batch *batch)
{
    if (keep_unreadable(entry) != 0) {
        note_trouble(fetch, "an unreadable one cannot be kept on the disk");
        return;
    }
    log_error("sms %d is unreadable, kept in %s", entry.place, UNREADABLE_FILE);
    add_place(batch, entry.place, 0, false);
}

// Returns false when the message has to be read again.
static bool take_entry(MessageFetch *fetch, const MessageEntry &entry, bool last_try, Batch *batch)
{
    DecodedMessage *message = nullptr;
    EntryKind kind = decode_entry(entry, true, &message);
    if (kind == EntryKind::damaged && last_try) // a modem that counts otherwise shows the same each time
        kind = decode_entry(entry, false, &message);
    switch (kind) {
    case EntryKind::message:
        take_message(fetch, entry, message, batch);
        free(message);
        return true;
    case EntryKind::own:
    case EntryKind::nothing:
        return true;
    case EntryKind::report:
        log_info("status report in sms %d, taken off the SIM", entry.place);
        add_place(batch, entry.place, 0, false);
        return true;
    case EntryKind::damaged:
        if (last_try)
            take_unreadable(fetch, entry, batch);
        return last_try;
    case EntryKind::text_mode:
    case EntryKind::no_memory:
        break;
    }
    if (last_try)
        note_trouble(fetch, kind == EntryKind::text_mode ? "the modem shows no PDUs" : "memory is short");
    return last_try;
}

// Messages are read in PDU mode. The mode is a setting of the clients, so it is restored after the reading.
static bool borrow_pdu_mode(MessageFetch *fetch)
{
    if (fetch->pdu_mode_borrowed || at_send_setter("AT+CMGF=0\r") != RESULT_OK)
        return false;
    fetch->pdu_mode_borrowed = true;
    return true;
}

static void return_pdu_mode(MessageFetch *fetch)
{
    if (fetch->pdu_mode_borrowed && at_send_setter("AT+CMGF=1\r") != RESULT_OK)
        log_error("text mode could not be set again");
    fetch->pdu_mode_borrowed = false;
}

// Asks for the message in `place`, or for a list of all messages when it is negative.
static result_t read_messages(int32_t place, AtAnswer *answer)
{
    uint32_t before = answers_left.load();
    reading.store(1);
    result_t code = place < 0 ? at_list_sms(answer) : at_read_sms(place, answer);
    reading.store(0);
    EntryWalk walk = {answer->view(), false};
    MessageEntry entry;
    uint32_t own = next_entry(&walk, &entry);
    if (answers_left.load() - before > own)
        g_sms_sweep.store(1); // somebody else's answer was left alone, or only a part of ours has come
    return code;
}

static bool holds_place(const Batch *batch, int32_t place)
{
    for (unsigned i = 0; i < batch->count; i++) {
        if (batch->places[i].index == place)
            return true;
    }
    return false;
}

// False when the modem does not answer.
static bool take_place(MessageFetch *fetch, int32_t place, Batch *batch)
{
    if (holds_place(batch, place))
        return true; // announced twice; cleared twice, the second time would take the next message
    result_t code = RESULT_ERROR;
    for (int i = 1; i <= TRIES; i++) {
        AtAnswer answer;
        code = read_messages(place, &answer);
        EntryWalk walk = {answer.view(), false};
        MessageEntry entry = {};
        bool found = next_entry(&walk, &entry);
        entry.place = place;
        if (found && entry.text_mode && borrow_pdu_mode(fetch)) { // the text may hold anything, also "ERROR"
            i--;
            continue;
        }
        if (code == RESULT_OK && found && take_entry(fetch, entry, i == TRIES, batch))
            return true;
        if (code != RESULT_OK && i == TRIES)
            log_error("read sms %d failed\n", place);
        if (code == RESULT_REQUEST_FAILED && i == TRIES)
            g_sms_sweep.store(1); // it is there all the same: a scan began, or the modem was silent
        if (!sleep_while_running(SHORT_PAUSE_MS))
            return false;
    }
    return code != RESULT_REQUEST_FAILED;
}

// A deletion that got no answer may have been carried out all the same, and the network may have put the next message
// into the same place. So the deletion is not repeated before the SIM has been listed.
static bool clear_place(const Place &place)
{
    for (int i = 1; i <= TRIES; i++) {
        result_t code = at_delete_sms(place.index);
        if (code == RESULT_OK)
            return true;
        if (i == TRIES || code == RESULT_REQUEST_FAILED) {
            log_error("delete sms %d failed\n", place.index);
            return false;
        }
        if (!sleep_while_running(SHORT_PAUSE_MS))
            return false;
    }
    return false;
}

// Saves once, clears the places and empties the batch. False when the modem left any of them as it is.
static bool finish_batch(MessageFetch *fetch, Batch *batch)
{
    bool saved = batch->count == 0 || save_messages(MESSAGE_FILE) == 0;
    bool cleared = true;
    if (batch->unread)
        (void)uci_set_message_unread(); // a router without that section has no such lamp
    for (unsigned i = 0; i < batch->count; i++) {
        const Place &place = batch->places[i];
        if (place.after_save && !saved) {
            note_trouble(fetch, "the message file cannot be written");
        } else if (cleared) {
            if (i > 0)
                give_others_a_turn();
            cleared = clear_place(place);
            if (cleared) {
                forget(fetch, place.fingerprint);
                continue;
            }
        }
        remember(fetch, place.fingerprint);
    }
    return_pdu_mode(fetch);
    *batch = {};
    return cleared;
}

bool next_announced(int32_t *place, uint32_t wait_ms, const uint32_t *since)
{
    void *element =
        wait_ms ? pool_queue_pop_for(&incomming_sms_queue, wait_ms, since) : pool_queue_try_pop(&incomming_sms_queue);
    if (!element)
        return false;
    memcpy(place, element, sizeof *place);
    pool_queue_release(&incomming_sms_queue, element);
    sms_index_done(*place);
    return true;
}

// The next listing is tried with the next routine, or, with `longer`, after a pause that grows each time.
static void list_later(MessageFetch *fetch, bool longer)
{
    int64_t pause_ms = int64_t{2} * fetch->pause_ms;
    if (pause_ms == 0)
        pause_ms = int64_t{settings_g.requester_interval_s} * 1000;
    if (pause_ms < SHORTEST_PAUSE_MS)
        pause_ms = SHORTEST_PAUSE_MS;
    fetch->pause_ms = !longer ? 0 : static_cast<uint32_t>(pause_ms < LONGEST_PAUSE_MS ? pause_ms : LONGEST_PAUSE_MS);
    fetch->failed = monotonic_now();
    fetch->may_list = false;
    g_sms_sweep.store(1);
}

void fetch_announced(MessageFetch *fetch, int32_t place)
{
    Batch batch = {};
    bool answers = take_place(fetch, place, &batch);
    while (answers && batch.count < GROUP && running.load() && !g_scanning.load() && next_announced(&place, 0)) {
        give_others_a_turn();
        answers = take_place(fetch, place, &batch);
    }
    if (!finish_batch(fetch, &batch))
        list_later(fetch, true);
}

// Without a usable SIM there is nothing to list until "+SIM READY" (3GPP TS 27.005 3.2.5, 27.007 9.2.1).
static bool sim_unusable(const AtAnswer &answer)
{
    static const char *const REASONS[] = {"+CMS ERROR: 310", "+CMS ERROR: 311", "+CMS ERROR: 316",
                                          "+CME ERROR: 10",  "+CME ERROR: 11",  "+CME ERROR: 12"};
    for (const char *reason : REASONS) {
        if (answer.has_error(reason))
            return true;
    }
    return false;
}

static bool in_text_mode()
{
    AtAnswer answer;
    return at_exchange("AT+CMGF?\r", "+CMGF:", nullptr, &answer) == RESULT_OK && strstr(answer.text, "+CMGF: 1");
}

// Has the message been taken over, so that it only waits to be written to the disk?
static bool waits_for_disk(MessageFetch *fetch, const MessageEntry &entry)
{
    DecodedMessage *message = nullptr;
    if (messages_on_disk() || !find_known(fetch, fingerprint_of(entry.pdu)) ||
        decode_entry(entry, true, &message) != EntryKind::message)
        return false;
    bool waits = message_is_stored(message);
    free(message);
    return waits;
}

enum class Listing { nothing, taken, failed };

// The list only tells which places hold messages. Each message is then read from its place, so that a damaged line in
// the list cannot make the daemon clear the place of another message.
static Listing take_listed(MessageFetch *fetch, const AtAnswer &answer)
{
    constexpr int32_t UNSENT = 2;
    Batch batch = {};
    bool answers = true, taken = false;
    EntryWalk walk = {answer.view(), false};
    MessageEntry entry;
    while (answers && running.load() && next_entry(&walk, &entry)) {
        if ((entry.status >= UNSENT && !entry.text_mode) || waits_for_disk(fetch, entry))
            continue;
        give_others_a_turn();
        answers = take_place(fetch, entry.place, &batch);
        taken = taken || batch.count > 0;
        if (batch.count == GROUP)
            answers = finish_batch(fetch, &batch) && answers;
    }
    answers = finish_batch(fetch, &batch) && answers;
    if (!answers)
        return Listing::failed;
    return taken || walk.stray ? Listing::taken : Listing::nothing;
}

static result_t list_in_pdu_mode(MessageFetch *fetch, AtAnswer *answer)
{
    result_t code = read_messages(-1, answer);
    if (code != RESULT_ERROR || sim_unusable(*answer) || !in_text_mode() || !borrow_pdu_mode(fetch))
        return code;
    free(answer->text);
    answer->text = nullptr;
    return read_messages(-1, answer);
}

bool listing_is_due(const MessageFetch *fetch)
{
    return (fetch->may_list || at_once.load()) && g_sms_sweep.load();
}

void fetch_listed(MessageFetch *fetch)
{
    if (!listing_is_due(fetch))
        return;
    if (at_once.exchange(0)) {
        fetch->may_list = true;
        fetch->pause_ms = 0;
    }
    g_sms_sweep.store(0);
    AtAnswer answer;
    result_t code = list_in_pdu_mode(fetch, &answer);
    bool listed = code == RESULT_OK || sim_unusable(answer);
    Listing outcome = code == RESULT_OK ? take_listed(fetch, answer) : Listing::nothing;
    // A modem that shows the same list again, although all of it was taken, would otherwise be asked for it without
    // end.
    uint64_t shown = outcome == Listing::taken ? fingerprint_of(answer.view()) : 0;
    const bool again = shown != 0 && shown == fetch->last_taken;
    fetch->last_taken = again ? 0 : shown;
    if (again)
        outcome = Listing::failed;
    return_pdu_mode(fetch);
    if (!running.load())
        return;
    if (g_scanning.load()) {
        g_sms_sweep.store(1); // what was refused during a scan is tried behind it
    } else if (!listed || outcome == Listing::failed) {
        note_trouble(fetch, listed ? "the modem does not let them go" : "the modem does not list them");
        list_later(fetch, true);
    } else if (g_sms_sweep.load() || !messages_on_disk()) {
        list_later(fetch, false);
    } else if (outcome == Listing::taken) {
        g_sms_sweep.store(1); // until there is nothing: the listing may have come damaged
    } else {
        fetch->pause_ms = 0;
        if (fetch->trouble)
            log_error("no messages wait any more");
        fetch->trouble = false;
    }
}

void fetch_routine(MessageFetch *fetch)
{
    if (retry_messages(MESSAGE_FILE) != 0)
        note_trouble(fetch, "the message file cannot be read or written");
    const timespec now = monotonic_now();
    int64_t elapsed_ms = (static_cast<int64_t>(now.tv_sec) - fetch->failed.tv_sec) * 1000 +
                         (now.tv_nsec - fetch->failed.tv_nsec) / 1000000;
    fetch->may_list = fetch->may_list || elapsed_ms >= fetch->pause_ms;
}

void list_messages_at_once()
{
    at_once.store(1);
    g_sms_sweep.store(1);
    pool_queue_wake(&incomming_sms_queue);
}

void messages_in_answer(std::string_view text)
{
    EntryWalk walk = {text, false};
    MessageEntry entry;
    bool offered = false, unread = false, listed = false;
    while (next_entry(&walk, &entry)) {
        if (reading.load()) {
            answers_left.fetch_add(1);
            return;
        }
        DecodedMessage *message = nullptr;
        listed = listed || entry.place >= 0;
        if (decode_entry(entry, false, &message) != EntryKind::message)
            continue;
        offered = true;
        unread = offer_message(message, true) == AddResult::added || unread;
        free(message);
    }
    if (offered)
        (void)save_messages(MESSAGE_FILE); // a failure is printed, and tried again with the routine
    if (unread)
        (void)uci_set_message_unread(); // a router without that section has no such lamp
    if (listed)
        list_messages_at_once();
}

MessageFetch message_fetch_start()
{
    MessageFetch fetch = {};
    fetch.may_list = true;
    return fetch;
}
