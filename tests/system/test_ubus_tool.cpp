// What the tool prints and how it exits.
#include "broker_process.h"

extern "C" {
#include <libubus.h>
}

namespace {

struct result {
    int code;
    std::string out;
    std::string err;
};

int reply(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "result", 0);
    blobmsg_add_string(&b, "imei", "86\"1");
    void *list = blobmsg_open_array(&b, "cells");
    blobmsg_add_u8(&b, nullptr, 1);
    blobmsg_close_array(&b, list);
    ubus_send_reply(ctx, req, b.head);
    blob_buf_free(&b);
    return UBUS_STATUS_OK;
}

int refuse(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    return UBUS_STATUS_INVALID_ARGUMENT;
}

int keep(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    ubus_request_data forgotten;
    ubus_defer_request(ctx, req, &forgotten);
    return UBUS_STATUS_OK;
}

const blobmsg_policy policy[] = {
    {"index", BLOBMSG_TYPE_INT32}, {"text", BLOBMSG_TYPE_STRING}, {"list", BLOBMSG_TYPE_ARRAY},
    {"table", BLOBMSG_TYPE_TABLE}, {"on", BLOBMSG_TYPE_BOOL},
};
const ubus_method methods[] = {UBUS_METHOD("refuse", refuse, policy), UBUS_METHOD_NOARG("get_imei", reply),
                               UBUS_METHOD_NOARG("keep", keep)};

class UbusTool : public BrokerTest {
protected:
    Process start(std::vector<std::string> arguments, const std::string &name)
    {
        arguments.insert(arguments.begin(), {std::string(BIN_DIR) + "/ubus", "-s", socket_path});
        ProcessOptions options;
        options.output_path = folder / (name + ".out");
        options.error_path = folder / (name + ".err");
        return Process::start(arguments, options);
    }

    // Runs the tool while the object is served.
    result run(const std::vector<std::string> &arguments)
    {
        Process tool = start(arguments, "tool");
        EXPECT_TRUE(wait_for([&] {
            if (context)
                uloop_run_timeout(1);
            return !tool.running();
        }));
        auto status = tool.wait_exit();
        return {status ? status->code : -1, tool.output(), tool.errors()};
    }

    void add_object()
    {
        uloop_handle_sigchld = false; // this test waits for its own processes
        context = ubus_connect(socket_path);
        ASSERT_NE(context, nullptr);
        uloop_init();
        ubus_add_uloop(context);
        type = UBUS_OBJECT_TYPE("celmux", methods);
        object = {};
        object.name = "celmux";
        object.type = &type;
        object.methods = methods;
        object.n_methods = ARRAY_SIZE(methods);
        ASSERT_EQ(ubus_add_object(context, &object), UBUS_STATUS_OK);
    }

    void TearDown() override
    {
        if (context) {
            ubus_free(context);
            uloop_done();
        }
        BrokerTest::TearDown();
    }

    ubus_context *context = nullptr;
    ubus_object_type type = {};
    ubus_object object = {};
};

TEST_F(UbusTool, ListsAndCalls)
{
    EXPECT_EQ(run({"list"}).out, "");
    add_object();
    char id[16];
    snprintf(id, sizeof id, "%08x", object.id);
    const std::string verbose = std::string("'celmux' @") + id +
                                "\n\t\"refuse\":{\"index\":\"Integer\",\"text\":\"String\",\"list\":\"Array\","
                                "\"table\":\"Table\",\"on\":\"Boolean\"}\n\t\"get_imei\":{}\n\t\"keep\":{}\n";
    const std::string indented = "{\n\t\"result\": 0,\n\t\"imei\": \"86\\\"1\",\n\t\"cells\": [\n\t\ttrue\n\t]\n}\n";
    const std::string one_line = "{\"result\":0,\"imei\":\"86\\\"1\",\"cells\":[true]}\n";
    struct {
        std::vector<std::string> arguments;
        result expected;
    } const rows[] = {
        {{"list"}, {0, "celmux\n", ""}},
        {{"list", "cel*"}, {0, "celmux\n", ""}},
        {{"list", "-v", "celmux"}, {0, verbose, ""}},
        {{"-v", "list"}, {0, verbose, ""}},
        {{"-S", "list", "-v"}, {0, "celmux\n", ""}},
        {{"list", "nobody"}, {4, "", "Command failed: Not found\n"}},
        {{"call", "celmux", "get_imei"}, {0, indented, ""}},
        {{"call", "celmux", "get_imei", "{\"a\":[1,{}]}"}, {0, indented, ""}},
        {{"-S", "call", "celmux", "get_imei"}, {0, one_line, ""}},
        {{"call", "celmux", "refuse"}, {254, "", ""}},
        {{"call", "celmux", "missing"}, {253, "", "Command failed: ubus call celmux missing (Method not found)\n"}},
        {{"call", "nobody", "get_imei"}, {4, "", "Command failed: Not found\n"}},
        {{"-t", "1", "call", "celmux", "keep"},
         {249, "", "Command failed: ubus call celmux keep (Request timed out)\n"}},
        {{"-S", "call", "celmux", "missing"}, {3, "", ""}},
        {{"call", "celmux", "get_imei", "{"},
         {244, "", "Command failed: ubus call celmux get_imei { (Parsing message data failed)\n"}},
        {{"monitor"}, {255, "", "ubus: the bus on this machine cannot be monitored\n"}},
        {{"subscribe", "nobody"}, {255, "", "Error while registering for event 'nobody': Not found\n"}},
        {{"-s", "no.sock", "list"}, {255, "", "Failed to connect to ubus\n"}},
        {{"-t", "1", "wait_for", "celmux", "late"}, {7, "", "Command failed: Request timed out\n"}},
        {{"wait_for", "celmux"}, {0, "", ""}},
        {{"send", "modem", "{\"event\":\"x\"}"}, {0, "", ""}},
    };
    for (auto &row : rows) {
        std::string line;
        for (const std::string &word : row.arguments)
            line += word + " ";
        const result got = run(row.arguments);
        EXPECT_EQ(got.code, row.expected.code) << line;
        EXPECT_EQ(got.out, row.expected.out) << line;
        if (got.code == 254) // the usage follows
            EXPECT_TRUE(got.err.starts_with("Command failed: ubus call celmux refuse (Invalid argument)\n")) << got.err;
        else
            EXPECT_EQ(got.err, row.expected.err) << line;
    }
    EXPECT_EQ(run({"call", "celmux"}).code, 1);
}

TEST_F(UbusTool, WaitsForAnObject)
{
    Process waiting = start({"wait_for", "celmux"}, "waiting");
    EXPECT_TRUE(waiting.running());
    add_object();
    auto status = waiting.wait_exit();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 0);
}

TEST_F(UbusTool, PrintsNotifications)
{
    add_object();
    Process subscribed = start({"subscribe", "celmux"}, "subscribed");
    EXPECT_TRUE(wait_for([&] {
        uloop_run_timeout(1);
        return object.has_subscribers;
    }));
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "result", 1);
    EXPECT_EQ(ubus_notify(context, &object, "changed", b.head, -1), UBUS_STATUS_OK);
    blob_buf_free(&b);
    EXPECT_TRUE(subscribed.wait_for_output("{ \"changed\": {\"result\":1} }\n"));
    EXPECT_EQ(subscribed.stop().code, 0);
}

TEST_F(UbusTool, PrintsEvents)
{
    Process listening = start({"listen"}, "all");
    Process modem_only = start({"listen", "mod*"}, "modem");
    // Nothing tells when the listeners are registered, so events are sent until both have seen one.
    EXPECT_TRUE(wait_for([&] {
        EXPECT_EQ(run({"send", "modem", "{\"event\":\"scan_complete\"}"}).code, 0);
        return !listening.output().empty() && !modem_only.output().empty();
    }));
    run({"send", "other"});
    EXPECT_TRUE(listening.wait_for_output("{ \"other\": {} }\n"));
    EXPECT_EQ(listening.output_lines().front(), "{ \"modem\": {\"event\":\"scan_complete\"} }");
    for (const std::string &line : modem_only.output_lines())
        EXPECT_EQ(line, "{ \"modem\": {\"event\":\"scan_complete\"} }");
    EXPECT_EQ(listening.stop().code, 0);
    broker.stop();
    auto status = modem_only.wait_exit();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 10);
    start_broker();
}

} // namespace
