// A client of the bus that costs as little as one can. One thread each.
#pragma once

#include <cstdint>
#include <string>

extern "C" {
#include <libubox/blobmsg.h>
}

struct ubus_context;

class Caller {
public:
    // Throws std::runtime_error without a broker at `socket`.
    explicit Caller(const std::string &socket);
    ~Caller();
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;

    bool object_present();

    // Calls a method of the object `celmux` without arguments. True when the answer has the result 0.
    bool succeeds(const char *method);

    // The same, in ms. Throws std::runtime_error when it does not succeed.
    double time_call(const char *method);

private:
    std::string status_of(const char *method); // "ok" or what is wrong

    ubus_context *context_;
    uint32_t object_ = 0;
    blob_buf nothing_ = {};
};
