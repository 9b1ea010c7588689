// A server and a client of the library on a broker, and what the library does with a peer that misbehaves.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "broker_process.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace {

struct holder {
    blob_buf buf = {};
    holder()
    {
        blob_buf_init(&buf, 0);
    }
    ~holder()
    {
        blob_buf_free(&buf);
    }
};

ubus_request_data deferred;

int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
    return ubus_send_reply(ctx, req, msg);
}

int refuse(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    return UBUS_STATUS_INVALID_ARGUMENT;
}

int defer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    static uloop_timeout later;
    static ubus_context *context;
    context = ctx;
    ubus_defer_request(ctx, req, &deferred);
    later = {};
    later.cb = [](uloop_timeout *) {
        holder reply;
        blobmsg_add_u32(&reply.buf, "later", 1);
        ubus_send_reply(context, &deferred, reply.buf.head);
        ubus_complete_deferred_request(context, &deferred, UBUS_STATUS_NO_DATA);
    };
    uloop_timeout_set(&later, 1);
    return UBUS_STATUS_OK;
}

int never(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    ubus_defer_request(ctx, req, &deferred);
    return UBUS_STATUS_OK;
}

int large(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    holder reply;
    const std::string text(UBUS_MAX_MSGLEN, 'x');
    blobmsg_add_string(&reply.buf, "text", text.c_str());
    return ubus_send_reply(ctx, req, reply.buf.head);
}

int end_loop(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    uloop_end();
    return UBUS_STATUS_OK;
}

const blobmsg_policy echo_policy[] = {{"text", BLOBMSG_TYPE_STRING}, {"index", BLOBMSG_TYPE_INT32}};

const ubus_method methods[] = {
    UBUS_METHOD("echo", echo, echo_policy), UBUS_METHOD_NOARG("refuse", refuse), UBUS_METHOD_NOARG("defer", defer),
    UBUS_METHOD_NOARG("never", never),      UBUS_METHOD_NOARG("large", large),   UBUS_METHOD_NOARG("end", end_loop),
};

// An object `celmux` on a thread of its own; it reconnects whenever the broker is gone.
class server {
public:
    server()
    {
        thread = std::thread([this] { run(); });
        std::unique_lock lock(mutex);
        EXPECT_TRUE(ready.wait_for(lock, std::chrono::seconds(20), [this] { return status >= 0; }));
        EXPECT_EQ(status, UBUS_STATUS_OK);
    }

    // Ends with a call from outside, because a flag that is set between two waits is lost.
    void end(ubus_context *client)
    {
        uint32_t id = 0;
        EXPECT_TRUE(wait_for([&] { return ubus_lookup_id(client, "celmux", &id) == UBUS_STATUS_OK; }));
        EXPECT_EQ(ubus_invoke(client, id, "end", nullptr, nullptr, nullptr, 10000), UBUS_STATUS_OK);
        thread.join();
    }

private:
    static inline uloop_timeout retry;
    static inline ubus_context *context;

    static void try_again(uloop_timeout *timer)
    {
        if (ubus_reconnect(context, "bus.sock") == UBUS_STATUS_OK)
            ubus_add_uloop(context);
        else
            uloop_timeout_set(timer, 5);
    }

    void run()
    {
        context = ubus_connect("bus.sock");
        ubus_object_type type = UBUS_OBJECT_TYPE("celmux", methods);
        ubus_object object = {};
        object.name = "celmux";
        object.type = &type;
        object.methods = methods;
        object.n_methods = ARRAY_SIZE(methods);
        uloop_init();
        context->connection_lost = [](ubus_context *) { uloop_timeout_set(&retry, 0); };
        retry = {};
        retry.cb = try_again;
        ubus_add_uloop(context);
        int result = ubus_add_object(context, &object);
        {
            std::lock_guard lock(mutex);
            status = result;
        }
        ready.notify_one();
        uloop_run();
        ubus_free(context);
        uloop_done();
    }

    std::thread thread;
    std::mutex mutex;
    std::condition_variable ready;
    int status = -1;
};

class BusClient : public BrokerTest {
protected:
    void SetUp() override
    {
        BrokerTest::SetUp();
        client = ubus_connect(socket_path);
        ASSERT_NE(client, nullptr);
    }
    void TearDown() override
    {
        ubus_free(client);
        BrokerTest::TearDown();
    }

    // The status, and in `answers` what came before it.
    int call(const char *method, const char *json = "{}", int timeout_ms = 20000)
    {
        answers.clear();
        uint32_t id = 0;
        if (int status = ubus_lookup_id(client, "celmux", &id))
            return status;
        holder message;
        EXPECT_TRUE(blobmsg_add_json_from_string(&message.buf, json));
        auto take = [](ubus_request *req, int type, blob_attr *msg) {
            EXPECT_EQ(type, UBUS_MSG_DATA);
            char *text = blobmsg_format_json_indent(msg, true, -1);
            *static_cast<std::string *>(req->priv) += text;
            free(text);
        };
        return ubus_invoke(client, id, method, message.buf.head, take, &answers, timeout_ms);
    }

    ubus_context *client = nullptr;
    std::string answers;
};

TEST_F(BusClient, CallsAnswerWithDataAndStatus)
{
    server object;
    EXPECT_EQ(call("echo", "{\"text\":\"a\",\"index\":7}"), UBUS_STATUS_OK);
    EXPECT_EQ(answers, "{\"text\":\"a\",\"index\":7}");
    EXPECT_EQ(call("refuse"), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call("defer"), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(answers, "{\"later\":1}");
    EXPECT_EQ(call("missing"), UBUS_STATUS_METHOD_NOT_FOUND);
    EXPECT_EQ(call("never", "{}", 20), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(ubus_invoke(client, 5000, "x", nullptr, nullptr, nullptr, 5000), UBUS_STATUS_NOT_FOUND);
    const std::string text(900000, 'y');
    EXPECT_EQ(call("echo", ("{\"text\":\"" + text + "\"}").c_str()), UBUS_STATUS_OK);
    EXPECT_EQ(answers.size(), text.size() + 11);
    object.end(client);
    EXPECT_EQ(call("echo"), UBUS_STATUS_NOT_FOUND);
}

TEST_F(BusClient, LookupShowsTheSignature)
{
    server object;
    std::string seen;
    auto take = [](ubus_context *, ubus_object_data *data, void *priv) {
        auto &text = *static_cast<std::string *>(priv);
        text += std::string(data->path) + (data->id > 1024 && data->type_id > 1024 ? " " : " bad id ");
        char *json = blobmsg_format_json_indent(static_cast<blob_attr *>(blob_data(data->signature)), false, -1);
        text += json;
        free(json);
    };
    EXPECT_EQ(ubus_lookup(client, "cel*", take, &seen), UBUS_STATUS_OK);
    EXPECT_EQ(seen, "celmux \"echo\":{\"text\":3,\"index\":5}");
    EXPECT_EQ(ubus_lookup(client, "nobody", take, &seen), UBUS_STATUS_NOT_FOUND);
    object.end(client);
}

TEST_F(BusClient, AnOversizedReplyCostsTheConnectionOnly)
{
    server object;
    EXPECT_EQ(call("large"), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_TRUE(wait_for([&] { return call("echo") == UBUS_STATUS_OK; })) << "the object did not come back";
    object.end(client);
}

TEST_F(BusClient, ObjectsComeBackAfterTheBroker)
{
    server object;
    broker.stop();
    EXPECT_EQ(call("echo"), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_reconnect(client, socket_path), UBUS_STATUS_CONNECTION_FAILED);
    start_broker();
    EXPECT_EQ(ubus_reconnect(client, socket_path), UBUS_STATUS_OK);
    EXPECT_TRUE(wait_for([&] { return call("echo", "{\"index\":1}") == UBUS_STATUS_OK; }));
    EXPECT_EQ(answers, "{\"index\":1}");
    object.end(client);
}

struct event_log {
    ubus_event_handler handler = {};
    std::string text;
    int wanted = 1;
};

void log_event(ubus_context *, ubus_event_handler *ev, const char *id, blob_attr *msg)
{
    auto *log = container_of(ev, event_log, handler);
    char *json = blobmsg_format_json_indent(msg, true, -1);
    log->text += std::string(id) + json + " ";
    free(json);
    if (--log->wanted == 0)
        uloop_end();
}

TEST_F(BusClient, EventsReachOthersByPattern)
{
    static event_log log; // lives as long as the client
    log.handler.cb = log_event;
    log.wanted = 2;
    ASSERT_EQ(ubus_register_event_handler(client, &log.handler, "modem"), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_event_handler(client, &log.handler, "net*"), UBUS_STATUS_OK);
    broker.stop();
    start_broker();
    ASSERT_EQ(ubus_reconnect(client, socket_path), UBUS_STATUS_OK); // patterns are registered anew
    ubus_context *sender = ubus_connect(socket_path);
    ASSERT_NE(sender, nullptr);
    holder data;
    blobmsg_add_string(&data.buf, "event", "scan_complete");
    EXPECT_EQ(ubus_send_event(client, "modem", data.buf.head), UBUS_STATUS_OK); // not to the sender itself
    EXPECT_EQ(ubus_send_event(sender, "other", data.buf.head), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_send_event(sender, "modem", data.buf.head), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_send_event(sender, "network", nullptr), UBUS_STATUS_OK);
    uloop_init();
    ubus_add_uloop(client);
    uloop_run();
    EXPECT_EQ(log.text, "modem{\"event\":\"scan_complete\"} network{} ");
    ubus_free(sender);
    uloop_done();
}

int call_other(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *)
{
    static int served = 0;
    EXPECT_EQ(ctx->stack_depth, 0);
    if (++served == 2) {
        uloop_end();
        return UBUS_STATUS_OK;
    }
    // A second call of this very method arrives while the handler waits for itself.
    EXPECT_EQ(ubus_invoke(ctx, obj->id, "self", nullptr, nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
    (void)req;
    return UBUS_STATUS_OK;
}

TEST_F(BusClient, CallsThatArriveDuringAWaitAreServedLater)
{
    static const ubus_method self_methods[] = {UBUS_METHOD_NOARG("self", call_other)};
    ubus_object_type type = UBUS_OBJECT_TYPE("self", self_methods);
    ubus_object object = {};
    object.name = "self";
    object.type = &type;
    object.methods = self_methods;
    object.n_methods = 1;
    uloop_init();
    ubus_add_uloop(client);
    ASSERT_EQ(ubus_add_object(client, &object), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_invoke(client, object.id, "self", nullptr, nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
    uloop_run();
    EXPECT_EQ(ubus_remove_object(client, &object), UBUS_STATUS_OK);
    uloop_done();
}

TEST_F(BusClient, ASignalEndsAWaitWhenTheLoopIsToEnd)
{
    ubus_context *owner = ubus_connect(socket_path); // has an object and never serves it
    ASSERT_NE(owner, nullptr);
    ubus_object_type type = UBUS_OBJECT_TYPE("celmux", methods);
    ubus_object object = {};
    object.name = "celmux";
    object.type = &type;
    ASSERT_EQ(ubus_add_object(owner, &object), UBUS_STATUS_OK);

    struct sigaction action = {}, original;
    action.sa_handler = [](int) { uloop_cancelled = true; };
    sigaction(SIGUSR2, &action, &original);
    const pthread_t self = pthread_self();
    std::atomic<bool> returned = false;
    std::thread sender([&] {
        while (!returned) {
            pthread_kill(self, SIGUSR2);
            usleep(10000);
        }
    });
    EXPECT_NE(ubus_invoke(client, object.id, "echo", nullptr, nullptr, nullptr, 60000), UBUS_STATUS_TIMEOUT);
    returned = true;
    sender.join();
    sigaction(SIGUSR2, &original, nullptr);
    ubus_free(owner);
}

TEST(BusStrerror, TextsOfAllCodes)
{
    const char *texts[] = {"Success",
                           "Invalid command",
                           "Invalid argument",
                           "Method not found",
                           "Not found",
                           "No response",
                           "Permission denied",
                           "Request timed out",
                           "Operation not supported",
                           "Unknown error",
                           "Connection failed",
                           "Out of memory",
                           "Parsing message data failed",
                           "System error"};
    for (int i = 0; i < 14; i++)
        EXPECT_STREQ(ubus_strerror(i), texts[i]);
    EXPECT_NE(ubus_strerror(-1), nullptr);
    EXPECT_NE(ubus_strerror(99), nullptr);
}

} // namespace
