// A client of the bus that makes calls without waiting for their answers, and that may go at any moment. Unlike
// libubus, which is made for one thread of a process, it shares nothing: each thread may have one.
#pragma once

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "wait_for.h"

struct PipelinedAnswer {
    int call;   // as call() numbered it
    int status; // of the bus
    nlohmann::json data;

    int64_t result() const // or -1
    {
        return data.is_object() && data.contains("result") ? data["result"].get<int64_t>() : -1;
    }
};

class PipelinedCaller {
public:
    using Methods = std::map<std::string, std::map<std::string, int>>;

    // Connects and looks the object `celmux` up. Throws std::runtime_error without a broker.
    explicit PipelinedCaller(const std::string &socket);
    ~PipelinedCaller();
    PipelinedCaller(PipelinedCaller &&other) noexcept;
    PipelinedCaller(const PipelinedCaller &) = delete;
    PipelinedCaller &operator=(const PipelinedCaller &) = delete;

    // The object's methods, each with its arguments as name and blobmsg type; empty when it is not there.
    const Methods &methods() const
    {
        return methods_;
    }

    // Sends a call and returns its number, counted from 1.
    int call(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object());

    // The next `count` answers in the order in which they end; fewer when they do not come within the limit or the
    // connection ends.
    std::vector<PipelinedAnswer> answers(size_t count, std::chrono::milliseconds limit = patience);
    // The answer of one call alone; those of earlier ones that come before it are dropped. Looks the object up when it
    // was gone. The status is UBUS_STATUS_NOT_FOUND without an object, and UBUS_STATUS_TIMEOUT or
    // UBUS_STATUS_CONNECTION_FAILED when the answer does not come.
    PipelinedAnswer ask(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object(),
                        std::chrono::milliseconds limit = patience);

    // Goes without waiting for what it has asked.
    void leave();

private:
    struct Message {
        int type;
        int sequence;
        std::string blob;
    };
    using Time = std::chrono::steady_clock::time_point;
    void look_up(Time end);
    void send(int type, int sequence, uint32_t peer, const void *blob, size_t size);
    // False when no message begins until then, or when the connection is lost.
    bool receive(Message *message, Time end);
    bool receive_exactly(void *to, size_t size);

    int fd_ = -1; // -1: gone or lost
    int calls_ = 0;
    uint32_t object_ = 0;
    Methods methods_;
    std::vector<PipelinedAnswer> begun_;
};
