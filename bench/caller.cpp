#include "caller.h"

extern "C" {
#include <libubus.h>
}

#include <stdexcept>
#include <string_view>

#include "spread.h"

Caller::Caller(const std::string &socket) : context_(ubus_connect(socket.c_str()))
{
    if (context_ == nullptr)
        throw std::runtime_error("no broker at " + socket);
    blob_buf_init(&nothing_, 0);
}

Caller::~Caller()
{
    blob_buf_free(&nothing_);
    ubus_free(context_);
}

bool Caller::object_present()
{
    return ubus_lookup_id(context_, "celmux", &object_) == UBUS_STATUS_OK;
}

static void take_result(ubus_request *request, int, blob_attr *message)
{
    blob_attr *member;
    size_t left;
    blob_for_each_attr(member, message, left)
    {
        if (blobmsg_type(member) == BLOBMSG_TYPE_INT32 && std::string_view(blobmsg_name(member)) == "result")
            *static_cast<uint32_t *>(request->priv) = blobmsg_get_u32(member);
    }
}

bool Caller::succeeds(const char *method)
{
    return status_of(method) == "ok";
}

std::string Caller::status_of(const char *method)
{
    constexpr int limit_ms = 60000;
    uint32_t result = UINT32_MAX;
    if (object_ == 0 && !object_present())
        return "no object";
    int status = ubus_invoke(context_, object_, method, nothing_.head, take_result, &result, limit_ms);
    if (status == UBUS_STATUS_NOT_FOUND)
        object_ = 0; // a daemon that was started again has another number
    if (status == UBUS_STATUS_OK && result == 0)
        return "ok";
    return "bus status " + std::to_string(status) + ", result " + std::to_string(result);
}

double Caller::time_call(const char *method)
{
    Clock::time_point begin = Clock::now();
    std::string status = status_of(method);
    double took = ms_since(begin);
    if (status != "ok")
        throw std::runtime_error(std::string(method) + " failed: " + status);
    return took;
}
