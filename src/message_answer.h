// What an answer to AT+CMGR or AT+CMGL says of messages (3GPP TS 27.005 3.4.2 and 3.4.3, PDU mode).
#pragma once

#include <cstdint>
#include <string_view>

#include "message_decode.h"

// One message of an answer, with views into it.
struct MessageEntry {
    int32_t place;        // where it is stored; -1 behind "+CMGR:"
    int32_t status;       // 0 unread, 1 read, 2 unsent, 3 sent
    int32_t length;       // octets of the PDU without the service-centre address, as the modem states it
    bool text_mode;       // the modem shows texts instead of PDUs
    std::string_view pdu; // the line behind the header; empty without one
};

// Walks the messages of an answer; starts as {text, false}.
struct EntryWalk {
    std::string_view rest;
    bool stray; // a PDU without a header was passed over: the answer is not whole
};
// False when there is no further one. Lines of other reports within the answer are passed over.
bool next_entry(EntryWalk *walk, MessageEntry *entry);

enum class EntryKind : uint8_t {
    message,   // a received message
    own,       // a draft or a sent message: its place is the user's
    report,    // a status report (TS 23.040 9.2.2.3)
    damaged,   // no PDU, or not all of one
    nothing,   // the place is empty
    text_mode, // not known: the modem has to be asked again in PDU mode
    no_memory,
};
// Takes the PDU apart. `strict`: its length must be the stated one. *message, to be freed by the caller, is set for
// EntryKind::message only.
EntryKind decode_entry(const MessageEntry &entry, bool strict, DecodedMessage **message);

// Tells PDUs from each other; never 0.
uint64_t fingerprint_of(std::string_view pdu);
