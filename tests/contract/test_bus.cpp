// What a client of the bus and an owner of an object can rely on, whichever library is linked. Owner and client are two
// processes: a library may keep what it needs in one place for all contexts of a process.
#include <sys/wait.h>

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

constexpr size_t largest_message = 1048576;

blob_attr *no_arguments()
{
    static holder empty;
    return empty.buf.head;
}

// In the owner's process.
ubus_context *context;
ubus_request_data deferred;
std::vector<ubus_request_data> parked;

int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
    return ubus_send_reply(ctx, req, msg);
}

int refuse(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    return UBUS_STATUS_INVALID_ARGUMENT;
}

int reply_number(ubus_request_data *req, const char *name, size_t value)
{
    holder reply;
    blobmsg_add_u32(&reply.buf, name, static_cast<uint32_t>(value));
    return ubus_send_reply(context, req, reply.buf.head);
}

int defer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    static uloop_timeout later;
    ubus_defer_request(ctx, req, &deferred);
    later = {};
    later.cb = [](uloop_timeout *) {
        (void)reply_number(&deferred, "later", 1);
        ubus_complete_deferred_request(context, &deferred, UBUS_STATUS_NO_DATA);
    };
    uloop_timeout_set(&later, 1);
    return UBUS_STATUS_OK;
}

int park(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    parked.emplace_back();
    ubus_defer_request(ctx, req, &parked.back());
    return UBUS_STATUS_OK;
}

int count_parked(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    return reply_number(req, "parked", parked.size());
}

// Answers those that were parked, the last one first; fails when an answer cannot be sent.
int release(ubus_context *ctx, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    int status = UBUS_STATUS_OK;
    for (size_t i = parked.size(); i-- > 0;) {
        if (int failed = reply_number(&parked[i], "place", i))
            status = failed;
        ubus_complete_deferred_request(ctx, &parked[i], UBUS_STATUS_OK);
    }
    parked.clear();
    return status;
}

int large(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    holder reply;
    const std::string text(largest_message, 'x');
    blobmsg_add_string(&reply.buf, "text", text.c_str());
    return ubus_send_reply(ctx, req, reply.buf.head);
}

// Notifies once without and once with waiting for the subscribers.
int notify(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *msg)
{
    static uloop_timeout later;
    static ubus_object *object;
    object = obj;
    (void)msg;
    ubus_defer_request(ctx, req, &deferred);
    later = {};
    later.cb = [](uloop_timeout *) {
        holder data;
        blobmsg_add_u32(&data.buf, "index", 7);
        int status = ubus_notify(context, object, "told", data.buf.head, -1);
        if (status == UBUS_STATUS_OK)
            status = ubus_notify(context, object, "asked", data.buf.head, 5000);
        (void)reply_number(&deferred, "subscribed", object->has_subscribers);
        ubus_complete_deferred_request(context, &deferred, status);
    };
    uloop_timeout_set(&later, 1);
    return UBUS_STATUS_OK;
}

int end_loop(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    uloop_end();
    return UBUS_STATUS_OK;
}

int die(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    _exit(0);
}

const blobmsg_policy echo_policy[] = {{"text", BLOBMSG_TYPE_STRING}, {"index", BLOBMSG_TYPE_INT32}};

const ubus_method methods[] = {
    UBUS_METHOD("echo", echo, echo_policy),
    UBUS_METHOD_NOARG("refuse", refuse),
    UBUS_METHOD_NOARG("defer", defer),
    UBUS_METHOD_NOARG("park", park),
    UBUS_METHOD_NOARG("large", large),
    UBUS_METHOD_NOARG("end", end_loop),
    UBUS_METHOD_NOARG("parked", count_parked),
    UBUS_METHOD_NOARG("release", release),
    UBUS_METHOD_NOARG("die", die),
    UBUS_METHOD_NOARG("notify", notify),
};

// A process of its own that begins without connection and loop.
template<typename Work> pid_t in_process(ubus_context *inherited, Work work)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    if (inherited)
        close(inherited->sock.fd);
    uloop_done();
    _exit(work());
}

int end_of(pid_t child)
{
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// An object `celmux` that comes back whenever the broker is gone.
class server {
public:
    explicit server(ubus_context *client)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        process = in_process(client, [&] { return run(ends[1]); });
        close(ends[1]);
        char status = 1;
        EXPECT_EQ(read(ends[0], &status, 1), 1);
        EXPECT_EQ(status, UBUS_STATUS_OK);
        close(ends[0]);
    }
    ~server()
    {
        if (process > 0)
            kill(process, SIGKILL);
        if (process > 0)
            waitpid(process, nullptr, 0);
    }

    // Ends with a call from outside, because a flag that is set between two waits is lost.
    void end(ubus_context *client)
    {
        uint32_t id = 0;
        EXPECT_TRUE(wait_for([&] { return ubus_lookup_id(client, "celmux", &id) == UBUS_STATUS_OK; }));
        EXPECT_EQ(ubus_invoke(client, id, "end", no_arguments(), nullptr, nullptr, 10000), UBUS_STATUS_OK);
        EXPECT_EQ(end_of(process), 0);
        process = 0;
    }

private:
    static inline uloop_timeout retry;

    static void try_again(uloop_timeout *timer)
    {
        if (ubus_reconnect(context, "bus.sock") == UBUS_STATUS_OK)
            ubus_add_uloop(context);
        else
            uloop_timeout_set(timer, 5);
    }

    static int run(int ready)
    {
        context = ubus_connect("bus.sock");
        if (!context)
            return 1;
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
        const auto status = static_cast<char>(ubus_add_object(context, &object));
        if (write(ready, &status, 1) != 1)
            return 2;
        uloop_run();
        // A broker may drop what it has not read when its client hangs up: a question whose answer is waited for comes
        // after the last answer.
        uint32_t id;
        (void)ubus_lookup_id(context, "celmux", &id);
        ubus_free(context);
        uloop_done();
        return 0;
    }

    pid_t process = 0;
};

class BusClient : public BrokerTest {
protected:
    void SetUp() override
    {
        BrokerTest::SetUp();
        uloop_handle_sigchld = false; // the processes of a test are its own to wait for
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
        return call(client, answers, method, json, timeout_ms);
    }

    static int call(ubus_context *client, std::string &answers, const char *method, const char *json, int timeout_ms)
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
    server object(client);
    EXPECT_EQ(call("echo", "{\"text\":\"a\",\"index\":7}"), UBUS_STATUS_OK);
    EXPECT_EQ(answers, "{\"text\":\"a\",\"index\":7}");
    EXPECT_EQ(call("refuse"), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call("defer"), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(answers, "{\"later\":1}");
    EXPECT_EQ(call("missing"), UBUS_STATUS_METHOD_NOT_FOUND);
    EXPECT_EQ(call("park", "{}", 20), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(ubus_invoke(client, 5000, "x", no_arguments(), nullptr, nullptr, 5000), UBUS_STATUS_NOT_FOUND);
    const std::string text(900000, 'y');
    EXPECT_EQ(call("echo", ("{\"text\":\"" + text + "\"}").c_str()), UBUS_STATUS_OK);
    EXPECT_EQ(answers.size(), text.size() + 11);
    object.end(client);
    EXPECT_EQ(call("echo"), UBUS_STATUS_NOT_FOUND);
}

TEST_F(BusClient, LookupShowsTheSignature)
{
    server object(client);
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

TEST_F(BusClient, DeferredCallsAreAnsweredInAnyOrder)
{
    server object(client);
    std::vector<pid_t> callers;
    for (int i = 0; i < 4; i++) {
        const std::string expected = "{\"parked\":" + std::to_string(i + 1) + "}";
        callers.push_back(in_process(client, [&] {
            ubus_context *own = ubus_connect(socket_path);
            const std::string place = "{\"place\":" + std::to_string(i) + "}";
            return own && call(own, answers, "park", "{}", 20000) == UBUS_STATUS_OK && answers == place ? 0 : 1;
        }));
        ASSERT_TRUE(wait_for([&] { return call("parked") == UBUS_STATUS_OK && answers == expected; })) << answers;
    }
    kill(callers[1], SIGKILL); // whoever has left takes nothing from the others, and its owner is not told
    EXPECT_EQ(end_of(callers[1]), -1);
    EXPECT_EQ(call("release"), UBUS_STATUS_OK);
    for (int i : {0, 2, 3})
        EXPECT_EQ(end_of(callers[static_cast<size_t>(i)]), 0);
    EXPECT_EQ(call("parked"), UBUS_STATUS_OK);
    EXPECT_EQ(answers, "{\"parked\":0}");
    object.end(client);
}

TEST_F(BusClient, AnOversizedReplyCostsTheConnectionOnly)
{
    server object(client);
    EXPECT_EQ(call("large", "{}", 300), UBUS_STATUS_TIMEOUT);
    EXPECT_TRUE(wait_for([&] { return call("echo") == UBUS_STATUS_OK; })) << "the object did not come back";
    object.end(client);
}

TEST_F(BusClient, AnOwnerThatGoesAwayLeavesItsCallersToTheirTimeOut)
{
    server object(client);
    EXPECT_EQ(call("die", "{}", 300), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(call("echo"), UBUS_STATUS_NOT_FOUND);
}

TEST_F(BusClient, ObjectsComeBackAfterTheBroker)
{
    server object(client);
    broker.stop();
    EXPECT_NE(call("echo"), UBUS_STATUS_OK);
    EXPECT_NE(ubus_reconnect(client, socket_path), UBUS_STATUS_OK);
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
    broker.stop();
    start_broker();
    ASSERT_EQ(ubus_reconnect(client, socket_path), UBUS_STATUS_OK);
    // Patterns do not come back with the objects.
    ASSERT_EQ(ubus_register_event_handler(client, &log.handler, "modem"), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_event_handler(client, &log.handler, "net*"), UBUS_STATUS_OK);
    holder data;
    blobmsg_add_string(&data.buf, "event", "scan_complete");
    EXPECT_EQ(ubus_send_event(client, "modem", data.buf.head), UBUS_STATUS_OK); // not to the sender itself
    const pid_t sender = in_process(client, [&] {
        ubus_context *own = ubus_connect(socket_path);
        return own && ubus_send_event(own, "other", data.buf.head) == UBUS_STATUS_OK &&
                       ubus_send_event(own, "modem", data.buf.head) == UBUS_STATUS_OK &&
                       ubus_send_event(own, "network", no_arguments()) == UBUS_STATUS_OK
                   ? 0
                   : 1;
    });
    uloop_init();
    ubus_add_uloop(client);
    uloop_run();
    EXPECT_EQ(log.text, "modem{\"event\":\"scan_complete\"} network{} ");
    EXPECT_EQ(end_of(sender), 0);
    uloop_done();
}

struct subscription_log {
    ubus_subscriber subscriber = {};
    std::string text;
};

int log_notification(ubus_context *, ubus_object *obj, ubus_request_data *, const char *type, blob_attr *msg)
{
    auto *log = container_of(container_of(obj, ubus_subscriber, obj), subscription_log, subscriber);
    char *json = blobmsg_format_json_indent(msg, true, -1);
    log->text += std::string(type) + json + " ";
    free(json);
    return UBUS_STATUS_PERMISSION_DENIED; // which nobody is told
}

void log_removal(ubus_context *, ubus_subscriber *subscriber, uint32_t)
{
    container_of(subscriber, subscription_log, subscriber)->text += "gone ";
    uloop_end();
}

TEST_F(BusClient, NotificationsReachSubscribers)
{
    static subscription_log log; // lives as long as the client
    log.subscriber.cb = log_notification;
    log.subscriber.remove_cb = log_removal;
    server object(client);
    EXPECT_EQ(call("notify"), UBUS_STATUS_OK); // nobody listens
    EXPECT_EQ(answers, "{\"subscribed\":0}");

    uint32_t id = 0;
    ASSERT_EQ(ubus_lookup_id(client, "celmux", &id), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_subscriber(client, &log.subscriber), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_subscribe(client, &log.subscriber, 5000), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_unsubscribe(client, &log.subscriber, id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_subscribe(client, &log.subscriber, log.subscriber.obj.id), UBUS_STATUS_INVALID_ARGUMENT);
    ASSERT_EQ(ubus_subscribe(client, &log.subscriber, id), UBUS_STATUS_OK);

    // Another asks for the notifications, because a subscriber that waits for a call cannot answer one.
    const pid_t other = in_process(client, [] {
        std::string answer;
        ubus_context *own = ubus_connect(socket_path);
        int status = own ? call(own, answer, "notify", "{}", 10000) : -1;
        if (status != UBUS_STATUS_OK || answer != "{\"subscribed\":1}")
            return 1;
        uint32_t owner = 0;
        if (ubus_lookup_id(own, "celmux", &owner) != UBUS_STATUS_OK)
            return 2;
        return ubus_invoke(own, owner, "die", no_arguments(), nullptr, nullptr, 200) == UBUS_STATUS_TIMEOUT ? 0 : 3;
    });
    uloop_init();
    ubus_add_uloop(client);
    uloop_run(); // until the object is gone
    EXPECT_EQ(log.text, "told{\"index\":7} asked{\"index\":7} gone ");
    EXPECT_EQ(end_of(other), 0);
    uloop_done();
}

int call_other(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *)
{
    static int served = 0;
    if (++served == 2) {
        uloop_end();
        return UBUS_STATUS_OK;
    }
    // A second call of this very method arrives while the handler waits for itself.
    EXPECT_EQ(ubus_invoke(ctx, obj->id, "self", no_arguments(), nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
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
    EXPECT_EQ(ubus_invoke(client, object.id, "self", no_arguments(), nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
    uloop_run();
    EXPECT_EQ(ubus_remove_object(client, &object), UBUS_STATUS_OK);
    uloop_done();
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
