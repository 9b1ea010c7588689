// What the tool does while others come and go; what it prints is in tests/data/transcripts/ubus.txt.
#include "broker_process.h"

extern "C" {
#include <libubus.h>
}

namespace {

ubus_object_type type = {"celmux", 0, nullptr, 0};

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

    void add_object()
    {
        uloop_handle_sigchld = false; // this test waits for its own processes
        context = ubus_connect(socket_path);
        ASSERT_NE(context, nullptr);
        uloop_init();
        ubus_add_uloop(context);
        object = {};
        object.name = "celmux";
        object.type = &type;
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
    ubus_object object = {};
};

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

TEST_F(UbusTool, EndsWithTheBroker)
{
    Process listening = start({"listen"}, "all");
    // Nothing tells when the listener is registered, so events are sent until it has seen one.
    EXPECT_TRUE(wait_for([&] { return start({"send", "modem"}, "sent").wait_exit() && !listening.output().empty(); }));
    broker.stop();
    auto status = listening.wait_exit();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 10);
    start_broker();
}

} // namespace
