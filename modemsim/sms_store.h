#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace modemsim {

/// The status of a stored message (3GPP TS 27.005 3.1, <stat> of PDU mode).
enum class MessageStatus { unread = 0, read = 1, unsent = 2, sent = 3 };

/// A short message and what has become of it.
struct Message {
    uint64_t id = 0;
    std::string pdu; ///< upper-case hexadecimal text, service centre address included
    MessageStatus status = MessageStatus::unread;
    std::string storage;      ///< "SM" or "ME"; empty while the network still holds it, or after direct delivery
    int index = 0;            ///< in its storage
    unsigned reads = 0;       ///< answers that were made with it
    unsigned handed_over = 0; ///< answers with it that went out whole and unaltered
    bool deleted = false;
};

/// The message storages of card and modem, and the messages that the network holds back while they are full.
class SmsStore {
public:
    /// The number of slots of each storage; indexes run from 1.
    void set_capacity(int slots);
    int capacity() const;
    int used(const std::string &storage) const;

    /// Takes a message over from the network; it stays with the network until `place` finds room for it.
    uint64_t arrive(std::string pdu);
    /// Moves the oldest message that the network holds into the lowest free slot; empty when none waits or none fits.
    const Message *place(const std::string &storage);
    /// The oldest message that the network holds leaves it without being stored.
    const Message *deliver_directly();
    /// Stores a message that the host wrote; its index, or 0 when the storage is full.
    int write(const std::string &storage, std::string pdu, MessageStatus status);

    /// The message in a slot; null when the slot is empty or there is no such slot.
    Message *at(const std::string &storage, int index);
    std::vector<Message *> all(const std::string &storage);
    bool erase(const std::string &storage, int index);
    void erase_read(const std::string &storage, int flag);

    Message *by_id(uint64_t id);
    const std::deque<Message> &history() const;
    size_t waiting() const;

private:
    int free_slot(const std::string &storage) const;

    int capacity_ = 20;
    std::deque<Message> history_; ///< message `id` stands at id - 1
    std::map<std::string, std::map<int, uint64_t>> slots_;
    std::deque<uint64_t> waiting_;
};

} // namespace modemsim
