// Takes messages over from the SIM: reads or lists them, has the store save them, and only then clears their places
// there. Runs on the requester's thread but for what says otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string_view>

// As many messages can be in the store and on the SIM at once without one that a client deleted coming back.
constexpr unsigned MOST_KNOWN = 256;

struct MessageFetch {
    uint64_t known[MOST_KNOWN]; // fingerprints of messages that were taken over but are still on the SIM
    unsigned next_known;        // the one that goes when another one comes
    bool may_list;              // cleared by a listing that failed, until it is tried again
    bool pdu_mode_borrowed;     // the modem was in text mode and is to be put back into it
    bool trouble;               // messages wait on the SIM or in memory: that was logged
    uint64_t last_taken;        // fingerprint of the last listing if messages were taken from it, else 0
    timespec failed;            // when the last listing did
    uint32_t pause_ms;          // from then on until the next one
};

MessageFetch message_fetch_start();

// Takes the next place off incomming_sms_queue, waiting for one for up to so many ms; `since` as of pool_queue_pop_for.
bool next_announced(int32_t *place, uint32_t wait_ms, const uint32_t *since = nullptr);
// Takes the message in this place and those behind it in incomming_sms_queue, as many as one save serves.
void fetch_announced(MessageFetch *fetch, int32_t place);
// Takes what the SIM holds if that is due: wanted (g_sms_sweep) and not tried a short time ago in vain.
void fetch_listed(MessageFetch *fetch);
bool listing_is_due(const MessageFetch *fetch);
// Tries again what is unsaved or unread. With every routine.
void fetch_routine(MessageFetch *fetch);

// The next listing is due at once, however often it failed. Any thread.
void list_messages_at_once();

// An answer with messages has come that `text` holds: to another command than the requester's, their messages are
// stored, and what was listed is listed again by the requester, who clears the places. The thread resp_processor.
void messages_in_answer(std::string_view text);
