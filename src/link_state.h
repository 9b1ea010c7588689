// The state that the state machine of the link (link_machine.h) keeps.
#pragma once

#include <cstddef>
#include <cstdint>

#include "link_text.h"

// ESC leaves the prompt of a message (3GPP TS 27.005 3.5.1). The line end behind it ends the command line of a modem
// that was not at a prompt.
constexpr char LINK_ESCAPE[] = "\x1b\r";

constexpr uint32_t LINK_ANSWER_MAX = 256 * 1024; // bytes of an answer; a longer one is a failure
constexpr unsigned LINK_NAMES = 32;              // so many commands are remembered with the way they are answered
constexpr unsigned LINK_RECENT = 16;             // answers whose times are kept
constexpr unsigned LINK_WAITING_MAX = 17;        // commands that wait for their turn: one of a caller and 16 others
constexpr unsigned LINK_OWED_MAX = 16;           // questions whose answers may still come

enum class LinkCaller : uint8_t {
    nobody, // nobody waits for the answer
    waits,  // the caller waits for the answer
    sends,  // the caller waits for the prompt, sends the text of a message and waits for the answer to that
};

struct LinkCommand {
    char *text;           // heap, ends in "\r"
    const char *expected; // what a successful answer holds, or null; the caller keeps it until the command is over
    uint32_t number;      // never 0
    LinkCaller caller;
    CommandKind kind;
};

enum class LinkPhase : uint8_t {
    idle,       // nothing is under way
    queued,     // the command is on its way to the port
    sent,       // it has been written; its final result code is due
    prompted,   // the prompt has come; the text of the message is due from the caller
    confirming, // a final result code has come that may not be the command's own; a mark tells
};

// Why an answer was not taken at once.
enum class LinkDoubt : uint8_t {
    none,
    early,   // sooner than this modem ever answered
    foreign, // its lines carry another command's name
    bare,    // no line, although the command asks for one
    crowded, // another final result code came together with it
    listing, // a text listing may hold a line "OK"
};

// What the owner of the machine gets as the outcome of an event.
struct LinkItem {
    enum class Kind : uint8_t {
        nothing,
        answer, // text is the answer to `number`, or null: there is none, or it cannot be had
        prompt, // `number` may go on with the text of the message
        report, // unsolicited
        late,   // a final result code that nobody waits for, with what stood before it
    } kind;
    uint32_t number;
    bool awaited;
    bool scan;  // the answer ends the network scan
    char *text; // heap; the receiver frees it
};

struct LinkMachine {
    // Hands bytes to the port; false when it takes none now. Number 0 belongs to the command before it.
    bool (*send)(const char *text, size_t length, uint32_t number);

    // What is to be sent.
    LinkCommand waiting[LINK_WAITING_MAX];
    unsigned waiting_count;
    uint32_t last_number;

    // What has been sent.
    LinkPhase phase;
    LinkCommand due; // unless idle
    int64_t sent_at;
    LinkDoubt doubt;
    char *candidate;   // while confirming: what may be the answer; null when no answer could be accepted so far
    bool tells_itself; // the command was sent out of step, since its answer cannot be mistaken
    bool replaced;     // the candidate is not the first final result code that came
    bool spoiled;      // some of a text listing in doubt is lost, so that there is no answer
    bool message_sent; // the text of the message has followed the prompt

    // Getting in step.
    bool in_step;      // nothing is owed but the answer to `due`
    bool escape;       // the modem may sit at a prompt
    bool mark_out;     // a mark has been sent
    bool mark_written; // it has been written to the port
    uint8_t mark;      // which question it asks
    uint8_t proven;    // bit per question: this modem answers it by name
    struct {
        uint8_t question;
        bool many;         // it was asked several times, one after another
    } owed[LINK_OWED_MAX]; // questions whose answers may still come, in the order in which they were asked
    unsigned owed_count;
    uint32_t mark_number;
    int64_t mark_at;
    int64_t not_before;          // no mark before then: the port refused one
    int64_t silent_since;        // 0 while the modem answers
    int64_t recent[LINK_RECENT]; // how long the last answers took that carried their command's name
    unsigned recent_count;       // so many such answers since the port was opened
    uint32_t named[LINK_NAMES];  // commands, as "AT+CSIM=", that were answered with a line of their name
    unsigned named_count;
    struct {
        uint32_t name, form; // hashes of such as "+CSIM" and "AT+CSIM="
    } asked[LINK_RECENT];    // the last commands and marks
    unsigned asked_count;
    uint32_t quick[LINK_RECENT]; // names of commands that turned out to be answered sooner than others
    unsigned quick_count;

    // What has come and is not over yet.
    char *text;
    size_t length, capacity;
    size_t line;   // where the incomplete last line begins
    size_t header; // while header_open: where a report of two lines begins
    bool header_open;
    bool result_open; // the last line is a final result code whose CR has come, perhaps not yet its LF
    bool overflow;    // some of the answer did not fit
    bool more;        // another final result code stands in the bytes at hand
    int64_t last_byte;

    // Counts since the start.
    uint32_t commands, timeouts, late_answers, marks;
};
