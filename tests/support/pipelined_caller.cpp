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

// The signature of a looked up object.
static PipelinedCaller::Methods methods_of(blob_attr *signature)
{
    PipelinedCaller::Methods methods;
    blob_attr *method, *argument;
    size_t left, inner;
    blob_for_each_attr(method, signature, left)
    {
        auto &arguments = methods[blobmsg_name(method)];
        blobmsg_for_each_attr(argument, method, inner)
        {
            arguments[blobmsg_name(argument)] = static_cast<int>(blobmsg_get_u32(argument));
        }
    }
    return methods;
}

PipelinedCaller::PipelinedCaller(const std::string &socket)
{
    constexpr timeval torn = {20, 0}; // for the rest of a message that has begun
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto end = steady_clock::now() + patience;
    Message hello;
    (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &torn, sizeof torn);
    (void)setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &torn, sizeof torn);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || !receive(&hello, end)) {
        leave();
        throw std::runtime_error("no broker at " + socket);
    }
    look_up(end);
}

void PipelinedCaller::look_up(steady_clock::time_point end)
{
    constexpr int sequence = 0; // no call's
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "celmux");
    send(UBUS_MSG_LOOKUP, sequence, 0, b.head, blob_raw_len(b.head));
    blob_buf_free(&b);
    Message message;
    while (receive(&message, end)) {
        if (message.sequence != sequence)
            continue;
        if (message.type == UBUS_MSG_STATUS)
            return;
        if (blob_attr *id = attribute(message.blob, UBUS_ATTR_OBJID))
            object_ = blob_get_u32(id);
        if (blob_attr *signature = attribute(message.blob, UBUS_ATTR_SIGNATURE))
            methods_ = methods_of(signature);
    }
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
    : fd_(std::exchange(other.fd_, -1)), calls_(other.calls_), object_(other.object_),
      methods_(std::move(other.methods_)), begun_(std::move(other.begun_))
{
}

void PipelinedCaller::send(int type, int sequence, uint32_t peer, const void *blob, size_t size)
{
    std::string bytes = {0, static_cast<char>(type), static_cast<char>(sequence >> 8), static_cast<char>(sequence)};
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(peer >> shift);
    bytes.append(static_cast<const char *>(blob), size);
    if (::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        leave();
}

bool PipelinedCaller::receive_exactly(void *to, size_t size)
{
    if (recv(fd_, to, size, MSG_WAITALL) == static_cast<ssize_t>(size))
        return true;
    leave();
    return false;
}

bool PipelinedCaller::receive(Message *message, steady_clock::time_point end)
{
    auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now()).count();
    pollfd entry = {fd_, POLLIN, 0};
    unsigned char head[12];
    if (fd_ == -1 || left < 0 || poll(&entry, 1, static_cast<int>(left)) <= 0 || !receive_exactly(head, sizeof head))
        return false;
    message->type = head[1];
    message->sequence = head[2] << 8 | head[3];
    size_t size = static_cast<size_t>(head[9] << 16 | head[10] << 8 | head[11]);
    message->blob.assign(reinterpret_cast<char *>(head) + 8, 4);
    message->blob.resize(size);
    return size == 4 || receive_exactly(message->blob.data() + 4, size - 4);
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
    calls_ = calls_ % 0xffff + 1;
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

PipelinedAnswer PipelinedCaller::ask(const std::string &method, const nlohmann::json &arguments, milliseconds limit)
{
    auto end = steady_clock::now() + limit;
    if (object_ == 0)
        look_up(end);
    const int number = object_ == 0 ? 0 : call(method, arguments);
    while (number != 0) {
        auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
        std::vector<PipelinedAnswer> next = answers(1, left);
        if (next.empty())
            return {number, fd_ == -1 ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT, nullptr};
        if (next.front().call != number)
            continue;
        if (next.front().status == UBUS_STATUS_NOT_FOUND)
            object_ = 0; // a daemon that was started again has another number
        return next.front();
    }
    return {0, fd_ == -1 ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_NOT_FOUND, nullptr};
}
