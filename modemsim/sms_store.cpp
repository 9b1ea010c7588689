#include "sms_store.h"

namespace modemsim {

void SmsStore::set_capacity(int slots)
{
    capacity_ = slots;
}

int SmsStore::capacity() const
{
    return capacity_;
}

int SmsStore::used(const std::string &storage) const
{
    auto found = slots_.find(storage);
    return found == slots_.end() ? 0 : static_cast<int>(found->second.size());
}

uint64_t SmsStore::arrive(std::string pdu)
{
    Message &message = history_.emplace_back();
    message.id = history_.size();
    message.pdu = std::move(pdu);
    waiting_.push_back(message.id);
    return message.id;
}

int SmsStore::free_slot(const std::string &storage) const
{
    auto found = slots_.find(storage);
    for (int index = 1; index <= capacity_; index++)
        if (found == slots_.end() || !found->second.contains(index))
            return index;
    return 0;
}

const Message *SmsStore::place(const std::string &storage)
{
    int index = free_slot(storage);
    if (waiting_.empty() || index == 0)
        return nullptr;
    Message *message = by_id(waiting_.front());
    waiting_.pop_front();
    slots_[storage][index] = message->id;
    message->storage = storage;
    message->index = index;
    return message;
}

const Message *SmsStore::deliver_directly()
{
    if (waiting_.empty())
        return nullptr;
    Message *message = by_id(waiting_.front());
    waiting_.pop_front();
    message->reads++;
    return message;
}

int SmsStore::write(const std::string &storage, std::string pdu, MessageStatus status)
{
    int index = free_slot(storage);
    if (index == 0)
        return 0;
    Message &message = history_.emplace_back();
    message.id = history_.size();
    message.pdu = std::move(pdu);
    message.status = status;
    message.storage = storage;
    message.index = index;
    slots_[storage][index] = message.id;
    return index;
}

Message *SmsStore::at(const std::string &storage, int index)
{
    auto found = slots_.find(storage);
    if (found == slots_.end() || !found->second.contains(index))
        return nullptr;
    return by_id(found->second[index]);
}

std::vector<Message *> SmsStore::all(const std::string &storage)
{
    std::vector<Message *> messages;
    for (auto [index, id] : slots_[storage])
        messages.push_back(by_id(id));
    return messages;
}

bool SmsStore::erase(const std::string &storage, int index)
{
    Message *message = at(storage, index);
    if (message == nullptr)
        return false;
    message->deleted = true;
    slots_[storage].erase(index);
    return true;
}

void SmsStore::erase_read(const std::string &storage, int flag)
{
    for (Message *message : all(storage)) {
        bool goes = false;
        switch (message->status) {
        case MessageStatus::read:
            goes = flag >= 1;
            break;
        case MessageStatus::sent:
            goes = flag >= 2;
            break;
        case MessageStatus::unsent:
            goes = flag >= 3;
            break;
        case MessageStatus::unread:
            goes = flag >= 4;
            break;
        }
        if (goes)
            erase(storage, message->index);
    }
}

Message *SmsStore::by_id(uint64_t id)
{
    return id >= 1 && id <= history_.size() ? &history_[id - 1] : nullptr;
}

const std::deque<Message> &SmsStore::history() const
{
    return history_;
}

size_t SmsStore::waiting() const
{
    return waiting_.size();
}

} // namespace modemsim
