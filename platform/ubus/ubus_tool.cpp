// The bus from a shell: look, call, send, listen, wait.
extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int exit_no_broker = 255;
constexpr int default_timeout_s = 30;

struct options {
    std::string socket = UBUS_UNIX_SOCKET;
    int timeout_s = default_timeout_s;
    bool timeout_given = false;
    bool simple = false;
    bool verbose = false;
    std::string path;
    std::string object;
    std::string method;
    std::string message;
    bool message_given = false;
    std::vector<std::string> objects;

    // 0 seconds mean no limit.
    int timeout_ms() const
    {
        return timeout_s > 0 && timeout_s < INT_MAX / 1000 ? timeout_s * 1000 : INT_MAX;
    }
};

struct blob_holder {
    blob_buf buf = {};
    blob_holder()
    {
        blob_buf_init(&buf, 0);
    }
    ~blob_holder()
    {
        blob_buf_free(&buf);
    }
    blob_holder(const blob_holder &) = delete;
    blob_holder &operator=(const blob_holder &) = delete;
};

std::string to_json(blob_attr *attr, int indent)
{
    std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json_indent(attr, true, indent), free);
    return text ? text.get() : "";
}

const char *type_name(uint32_t type)
{
    switch (type) {
    case BLOBMSG_TYPE_INT64:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT16:
        return "Integer";
    case BLOBMSG_TYPE_INT8:
        return "Boolean";
    case BLOBMSG_TYPE_STRING:
        return "String";
    case BLOBMSG_TYPE_ARRAY:
        return "Array";
    case BLOBMSG_TYPE_TABLE:
        return "Table";
    case BLOBMSG_TYPE_DOUBLE:
        return "Double";
    default:
        return "(unknown)";
    }
}

void print_method(blob_attr *method)
{
    printf("\t\"%s\":{", blobmsg_name(method));
    const char *separator = "";
    blob_attr *argument;
    size_t left;
    blobmsg_for_each_attr(argument, method, left)
    {
        printf("%s\"%s\":\"%s\"", separator, blobmsg_name(argument), type_name(blobmsg_get_u32(argument)));
        separator = ",";
    }
    printf("}\n");
}

void print_object(ubus_context *, ubus_object_data *object, void *priv)
{
    auto &given = *static_cast<const options *>(priv);
    if (!given.verbose || given.simple) {
        printf("%s\n", object->path);
        return;
    }
    printf("'%s' @%08x\n", object->path, static_cast<unsigned>(object->id));
    blob_attr *method;
    size_t left;
    blob_for_each_attr(method, object->signature, left)
    {
        print_method(method);
    }
}

void print_answer(ubus_request *req, int, blob_attr *msg)
{
    auto &given = *static_cast<const options *>(req->priv);
    if (!msg)
        return;
    printf("%s\n", to_json(msg, given.simple ? -1 : 0).c_str());
    fflush(stdout);
}

void print_event(ubus_context *, ubus_event_handler *, const char *id, blob_attr *msg)
{
    blob_holder name;
    blobmsg_add_string(&name.buf, nullptr, id);
    std::unique_ptr<char, decltype(&free)> quoted(
        blobmsg_format_json(static_cast<blob_attr *>(blob_data(name.buf.head)), false), free);
    printf("{ %s: %s }\n", quoted ? quoted.get() : "\"\"", to_json(msg, -1).c_str());
    fflush(stdout);
}

// In a script, that is without a terminal, a failed call is told with all its words and ends with 256 less its status.
int end_call(const options &given, int status)
{
    if (status == UBUS_STATUS_OK || given.simple || isatty(STDERR_FILENO))
        return status;
    fprintf(stderr, "Command failed: ubus call %s %s %s%s(%s)\n", given.object.c_str(), given.method.c_str(),
            given.message.c_str(), given.message_given ? " " : "", ubus_strerror(status));
    return -status;
}

int do_list(ubus_context *ctx, options &given)
{
    return ubus_lookup(ctx, given.path.empty() ? nullptr : given.path.c_str(), print_object, &given);
}

int do_call(ubus_context *ctx, options &given)
{
    blob_holder message;
    if (!given.message.empty() && !blobmsg_add_json_from_string(&message.buf, given.message.c_str()))
        return end_call(given, UBUS_STATUS_PARSE_ERROR);
    uint32_t id = 0;
    int status = ubus_lookup_id(ctx, given.object.c_str(), &id);
    if (status != UBUS_STATUS_OK)
        return status;
    return end_call(
        given, ubus_invoke(ctx, id, given.method.c_str(), message.buf.head, print_answer, &given, given.timeout_ms()));
}

int do_send(ubus_context *ctx, options &given)
{
    blob_holder message;
    if (!given.message.empty() && !blobmsg_add_json_from_string(&message.buf, given.message.c_str()))
        return UBUS_STATUS_PARSE_ERROR;
    return ubus_send_event(ctx, given.object.c_str(), message.buf.head);
}

bool connection_gone = false;

void on_connection_lost(ubus_context *)
{
    connection_gone = true;
    uloop_end();
}

bool timed_out = false;

void on_timeout(uloop_timeout *)
{
    timed_out = true;
    uloop_end();
}

// Serves events until the time is up, a handler or a signal ends it, or the broker goes away.
int serve(ubus_context *ctx, int timeout_ms)
{
    uloop_timeout limit = {};
    limit.cb = on_timeout;
    ctx->connection_lost = on_connection_lost;
    uloop_init();
    ubus_add_uloop(ctx);
    if (timeout_ms < INT_MAX)
        uloop_timeout_set(&limit, timeout_ms);
    uloop_run();
    uloop_timeout_cancel(&limit);
    return connection_gone ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_OK;
}

int do_listen(ubus_context *ctx, options &given)
{
    static ubus_event_handler listener = {};
    listener.cb = print_event;
    int status = ubus_register_event_handler(ctx, &listener, given.path.empty() ? "*" : given.path.c_str());
    if (status != UBUS_STATUS_OK)
        return status;
    return serve(ctx, given.timeout_given ? given.timeout_ms() : INT_MAX);
}

int print_notification(ubus_context *ctx, ubus_object *, ubus_request_data *, const char *type, blob_attr *msg)
{
    print_event(ctx, nullptr, type, msg);
    return UBUS_STATUS_OK;
}

int do_subscribe(ubus_context *ctx, options &given)
{
    static ubus_subscriber subscriber = {};
    subscriber.cb = print_notification;
    int status = ubus_register_subscriber(ctx, &subscriber);
    for (const std::string &object : given.objects) {
        uint32_t id = 0;
        if (status == UBUS_STATUS_OK)
            status = ubus_lookup_id(ctx, object.c_str(), &id);
        if (status == UBUS_STATUS_OK)
            status = ubus_subscribe(ctx, &subscriber, id);
        if (status != UBUS_STATUS_OK) {
            if (!given.simple)
                fprintf(stderr, "Error while registering for event '%s': %s\n", object.c_str(), ubus_strerror(status));
            return -1;
        }
    }
    return serve(ctx, given.timeout_given ? given.timeout_ms() : INT_MAX);
}

int do_monitor(ubus_context *, options &)
{
    fprintf(stderr, "ubus: the bus on this machine cannot be monitored\n");
    return -1;
}

std::set<std::string> missing;

void on_object_added(ubus_context *, ubus_event_handler *, const char *, blob_attr *msg)
{
    const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned int>(blob_len(msg)));
    if (path)
        missing.erase(blobmsg_get_string(path));
    if (missing.empty())
        uloop_end();
}

int do_wait_for(ubus_context *ctx, options &given)
{
    static ubus_event_handler listener = {};
    listener.cb = on_object_added;
    // Listening first: an object that comes between looking and listening would not be noticed.
    int status = ubus_register_event_handler(ctx, &listener, "ubus.object.add");
    for (const std::string &object : given.objects) {
        if (status != UBUS_STATUS_OK)
            return status;
        uint32_t id;
        status = ubus_lookup_id(ctx, object.c_str(), &id);
        if (status != UBUS_STATUS_NOT_FOUND)
            continue;
        missing.insert(object);
        status = UBUS_STATUS_OK;
    }
    if (status != UBUS_STATUS_OK || missing.empty())
        return status;
    status = serve(ctx, given.timeout_ms());
    if (status == UBUS_STATUS_OK && !missing.empty())
        status = timed_out ? UBUS_STATUS_TIMEOUT : UBUS_STATUS_UNKNOWN_ERROR;
    return status;
}

using command_function = int (*)(ubus_context *, options &);

int run(command_function command, options &given)
{
    ubus_context *ctx = ubus_connect(given.socket.c_str());
    if (!ctx) {
        if (!given.simple)
            fprintf(stderr, "Failed to connect to ubus\n");
        return exit_no_broker;
    }
    int status = command(ctx, given);
    if (status > UBUS_STATUS_OK && !given.simple)
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
    ubus_free(ctx);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Talks to the bus");
    app.require_subcommand(1);
    app.fallthrough();
    options given;
    command_function command = nullptr;
    app.add_option("-s", given.socket, "Socket of the broker")->take_last()->capture_default_str();
    CLI::Option *timeout = app.add_option("-t", given.timeout_s, "Seconds to wait, 0 without limit")
                               ->take_last()
                               ->capture_default_str()
                               ->check(CLI::NonNegativeNumber);
    app.add_flag("-S", given.simple, "Simple output, answers on one line");
    app.add_flag("-v", given.verbose, "With list: ids, methods and their arguments");

    auto add = [&](const char *name, const char *help, command_function function) {
        CLI::App *sub = app.add_subcommand(name, help);
        sub->callback([&command, function] { command = function; });
        return sub;
    };
    CLI::App *list = add("list", "List the objects on the bus", do_list);
    list->add_option("path", given.path, "Object, or its beginning and *");
    CLI::App *call = add("call", "Call an object's method", do_call);
    call->add_option("object", given.object)->required();
    call->add_option("method", given.method)->required();
    CLI::Option *message = call->add_option("message", given.message, "Arguments as a JSON object");
    CLI::App *listen = add("listen", "Print events", do_listen);
    listen->add_option("path", given.path, "Event, or its beginning and *");
    CLI::App *subscribe = add("subscribe", "Print the notifications of objects", do_subscribe);
    subscribe->add_option("object", given.objects)->required();
    add("monitor", "Not offered by this tool", do_monitor);
    CLI::App *send = add("send", "Send an event", do_send);
    send->add_option("event", given.object)->required();
    send->add_option("message", given.message, "Data as a JSON object");
    CLI::App *wait_for = add("wait_for", "Wait until all objects are on the bus", do_wait_for);
    wait_for->add_option("object", given.objects)->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    given.timeout_given = timeout->count() > 0;
    given.message_given = message->count() > 0;
    const int status = run(command, given);
    if (status == -UBUS_STATUS_INVALID_ARGUMENT)
        fprintf(stderr, "%s", app.help().c_str());
    return status;
}
