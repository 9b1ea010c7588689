#include "bus_client.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>

using Methods = std::map<std::string, std::map<std::string, int>>;

int64_t CallOutcome::result() const
{
    return data.is_object() && data.contains("result") ? data["result"].get<int64_t>() : -1;
}

// Connecting sets up the loop of libubox as well, which is not made for two threads at once.
static ubus_context *connect_alone(const std::string &socket)
{
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    return ubus_connect(socket.c_str());
}

BusClient::BusClient(const std::string &socket) : context_(connect_alone(socket))
{
    if (context_ == nullptr)
        throw std::runtime_error("no broker at " + socket);
}

BusClient::~BusClient()
{
    ubus_free(context_);
}

static void take_methods(ubus_context *, ubus_object_data *object, void *priv)
{
    Methods &methods = *static_cast<Methods *>(priv);
    blob_attr *method;
    size_t left;
    blob_for_each_attr(method, object->signature, left)
    {
        auto &arguments = methods[blobmsg_name(method)];
        blob_attr *argument;
        size_t inner;
        blobmsg_for_each_attr(argument, method, inner)
        {
            arguments[blobmsg_name(argument)] = static_cast<int>(blobmsg_get_u32(argument));
        }
    }
}

Methods BusClient::methods()
{
    Methods methods;
    (void)ubus_lookup(context_, "celmux", take_methods, &methods); // not there: none
    return methods;
}

static void take_answer(ubus_request *request, int, blob_attr *message)
{
    nlohmann::json &data = *static_cast<nlohmann::json *>(request->priv);
    std::unique_ptr<char, decltype(&free)> text(message ? blobmsg_format_json(message, true) : nullptr, free);
    if (text)
        data = nlohmann::json::parse(text.get(), nullptr, false);
}

CallOutcome BusClient::call(const std::string &method, const nlohmann::json &arguments, std::chrono::milliseconds limit)
{
    CallOutcome outcome = {UBUS_STATUS_NOT_FOUND, nullptr};
    blob_buf message = {};
    blob_buf_init(&message, 0);
    if (!blobmsg_add_json_from_string(&message, arguments.dump().c_str()))
        throw std::runtime_error("no message: " + arguments.dump());
    if (object_ == 0 && ubus_lookup_id(context_, "celmux", &object_) != UBUS_STATUS_OK)
        object_ = 0;
    if (object_ != 0)
        outcome.status = ubus_invoke(context_, object_, method.c_str(), message.head, take_answer, &outcome.data,
                                     static_cast<int>(limit.count()));
    if (outcome.status == UBUS_STATUS_NOT_FOUND)
        object_ = 0; // a daemon that was started again has another number
    blob_buf_free(&message);
    return outcome;
}
