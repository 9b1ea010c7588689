#include "pipelined_caller.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <ubusmsg.h>
}

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The value of an attribute of a message, null when it is not there.
static blob_attr *attribute(std::string &blob, unsigned id)
{
    blob_attr *attr;
    size_t left;
    blob_for_each_attr(attr, reinterpret_cast<blob_attr *>(blob.data()), left)
    {
        if (blob_id(attr) == id)
            return attr;
    }
    return nullptr;
}

PipelinedCaller::PipelinedCaller(const std::string &socket)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto end = steady_clock::now() + patience;
    Message message;
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || !receive(&message, end))
        throw std::runtime_error("no broker at " + socket);
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "celmux");
    send(UBUS_MSG_LOOKUP, 0, 0, b.head, blob_raw_len(b.head));
    blob_buf_free(&b);
    while (receive(&message, end) && message.type != UBUS_MSG_STATUS) {
        if (blob_attr *id = attribute(message.blob, UBUS_ATTR_OBJID))
            object_ = blob_get_u32(id);
    }
    if (object_ == 0)
        throw std::runtime_error("no object");
}

PipelinedCaller::~PipelinedCaller()
{
    leave();
}

void PipelinedCaller::leave()
{
    if (fd_ != -1)
        (void)close(fd_);
    fd_ = -1;
}

PipelinedCaller::PipelinedCaller(PipelinedCaller &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), calls_(other.calls_), object_(other.object_), begun_(std::move(other.begun_))
{
}

void PipelinedCaller::send(int type, int sequence, uint32_t peer, const void *blob, size_t size) const
{
    std::string bytes = {0, static_cast<char>(type), static_cast<char>(sequence >> 8), static_cast<char>(sequence)};
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(peer >> shift);
    bytes.append(static_cast<const char *>(blob), size);
    (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

bool PipelinedCaller::receive(Message *message, steady_clock::time_point end)
{
    unsigned char head[12];
    auto exactly = [&](void *to, size_t size) {
        for (size_t have = 0; have < size;) {
            auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now()).count();
            pollfd entry = {fd_, POLLIN, 0};
            if (left < 0 || poll(&entry, 1, static_cast<int>(left)) <= 0)
                return false;
            ssize_t got = recv(fd_, static_cast<char *>(to) + have, size - have, 0);
            if (got <= 0)
                return false;
            have += static_cast<size_t>(got);
        }
        return true;
    };
    if (!exactly(head, sizeof head))
        return false;
    message->type = head[1];
    message->sequence = head[2] << 8 | head[3];
    size_t size = static_cast<size_t>(head[9] << 16 | head[10] << 8 | head[11]);
    message->blob.assign(reinterpret_cast<char *>(head) + 8, 4);
    message->blob.resize(size);
    return exactly(message->blob.data() + 4, size - 4);
}

int PipelinedCaller::call(const std::string &method, const nlohmann::json &arguments)
{
    blob_buf data = {};
    blob_buf_init(&data, 0);
    blobmsg_add_json_from_string(&data, arguments.dump().c_str());
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, object_);
    blob_put_string(&b, UBUS_ATTR_METHOD, method.c_str());
    blob_put(&b, UBUS_ATTR_DATA, blob_data(data.head), static_cast<unsigned>(blob_len(data.head)));
    calls_++;
    send(UBUS_MSG_INVOKE, calls_, object_, b.head, blob_raw_len(b.head));
    blob_buf_free(&b);
    blob_buf_free(&data);
    return calls_;
}

std::vector<PipelinedAnswer> PipelinedCaller::answers(size_t count, milliseconds limit)
{
    auto end = steady_clock::now() + limit;
    std::vector<PipelinedAnswer> ended;
    Message message;
    while (ended.size() < count && receive(&message, end)) {
        auto begun = std::find_if(begun_.begin(), begun_.end(),
                                  [&](const PipelinedAnswer &answer) { return answer.call == message.sequence; });
        if (begun == begun_.end())
            begun = begun_.insert(begun_.end(), {message.sequence, -1, nullptr});
        blob_attr *data = attribute(message.blob, UBUS_ATTR_DATA), *status = attribute(message.blob, UBUS_ATTR_STATUS);
        if (message.type == UBUS_MSG_DATA && data) {
            std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json(data, true), free);
            begun->data = nlohmann::json::parse(text.get(), nullptr, false);
        } else if (message.type == UBUS_MSG_STATUS && status) {
            begun->status = static_cast<int>(blob_get_u32(status));
            ended.push_back(*begun);
            begun_.erase(begun);
        }
    }
    return ended;
}

PipelinedAnswer PipelinedCaller::ask(const std::string &method, const nlohmann::json &arguments)
{
    (void)call(method, arguments);
    std::vector<PipelinedAnswer> all = answers(1);
    return all.empty() ? PipelinedAnswer{calls_, -1, nullptr} : all.front();
}
