// A client of the bus that makes calls without waiting for their answers, and that may go at any moment.
#pragma once

#include <chrono>
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
    // Connects and looks the object `celmux` up. Throws std::runtime_error when there is none.
    explicit PipelinedCaller(const std::string &socket);
    ~PipelinedCaller();
    PipelinedCaller(PipelinedCaller &&other) noexcept;
    PipelinedCaller(const PipelinedCaller &) = delete;
    PipelinedCaller &operator=(const PipelinedCaller &) = delete;

    // Sends a call and returns its number, counted from 1.
    int call(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object());

    // The next `count` answers in the order in which they end; fewer when they do not come within the limit or the
    // connection ends.
    std::vector<PipelinedAnswer> answers(size_t count, std::chrono::milliseconds limit = patience);
    // The answer of one call alone, status -1 when it does not come.
    PipelinedAnswer ask(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object());

    // Goes without waiting for what it has asked.
    void leave();

private:
    struct Message {
        int type;
        int sequence;
        std::string blob;
    };
    void send(int type, int sequence, uint32_t peer, const void *blob, size_t size) const;
    bool receive(Message *message, std::chrono::steady_clock::time_point end);

    int fd_ = -1;
    int calls_ = 0;
    uint32_t object_ = 0;
    std::vector<PipelinedAnswer> begun_;
};
