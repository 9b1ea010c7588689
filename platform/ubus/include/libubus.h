/*
 * Client of the bus. A context belongs to one thread. Functions that return int return an ubus_msg_status; every wait
 * in here ends: connecting after 2 s, requests to the broker after 5 s, a call after its own time-out. Connecting
 * begins with uloop_init, so a SIGINT that comes during a call only sets uloop_cancelled and the call goes on, unless
 * the process has an action of its own.
 */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <stdint.h>

#include "ubusmsg.h"

struct ubus_context;
struct ubus_object;
struct ubus_request;
struct ubus_request_data;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_subscriber;

/* Answers a call: 0 or the status for the caller. msg lives until the handler returns. */
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                              const char *method, struct blob_attr *msg);
typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);
/* obj->has_subscribers has changed. */
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
/* The object with this id is gone; one that comes back has another id. */
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);
typedef bool (*ubus_new_object_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *sub, const char *path);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *type,
                                     struct blob_attr *msg);
/* Takes one answer of a call; msg is null when the answer carries no data. req->priv is what ubus_invoke was given. */
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);

#define UBUS_METHOD(_name, _handler, _policy)                                                                          \
    {                                                                                                                  \
        .name = (_name), .handler = (_handler), .mask = 0, .tags = 0, .policy = (_policy),                             \
        .n_policy = (int)ARRAY_SIZE(_policy)                                                                           \
    }

#define UBUS_METHOD_NOARG(_name, _handler)                                                                             \
    {                                                                                                                  \
        .name = (_name), .handler = (_handler), .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0                    \
    }

#define UBUS_OBJECT_TYPE(_name, _methods)                                                                              \
    {                                                                                                                  \
        .name = (_name), .id = 0, .methods = (_methods), .n_methods = (int)ARRAY_SIZE(_methods)                        \
    }

/* A method whose name is null takes every call that no earlier one takes. */
struct ubus_method {
    const char *name;
    ubus_handler_t handler;
    unsigned long mask; /* if not 0: bit i set for each policy entry that the signature shows */
    unsigned long tags;
    const struct blobmsg_policy *policy;
    int n_policy;
};

struct ubus_object_type {
    const char *name;
    uint32_t id;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_object {
    struct avl_node avl;
    const char *name; /* path on the bus, null for an anonymous object */
    uint32_t id;
    const char *path;
    struct ubus_object_type *type; /* its methods are shown to others */
    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;              /* a reconnection leaves it as it was */
    const struct ubus_method *methods; /* these are called */
    int n_methods;
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

/* Gets the notifications of objects of others as calls of cb. */
struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
    ubus_new_object_handler_t new_obj_cb; /* not supported here: null */
};

#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending; /* calls that came while this client waited for an answer */
    struct uloop_fd sock;
    struct uloop_timeout pending_timer;
    uint32_t local_id;
    uint16_t request_seq;
    int stack_depth;
    void (*connection_lost)(struct ubus_context *ctx);

    /* of the library itself */
    int n_pending;
    bool lost;
    uint8_t rx_head[12]; /* message header and the blob's first word */
    size_t rx_len;
    uint8_t *rx_blob;
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature;
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl; /* live until the handler returns */
    bool deferred;
    int fd;
    int req_fd;
};

struct ubus_request {
    struct list_head list;
    int status_code;
    bool status_msg;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb; /* takes the whole message instead of its DATA */
    ubus_data_handler_t data_cb;
    struct ubus_context *ctx;
    void *priv;

    /* of the library itself: subscribers that have not answered a notification yet */
    bool notify;
    int n_awaited;
    uint32_t awaited[UBUS_MAX_NOTIFY_PEERS + 1];
};

/* Connects to the broker at this path (null: UBUS_UNIX_SOCKET) and waits for its greeting. Null on failure. */
struct ubus_context *ubus_connect(const char *path);

/*
 * Connects again after the connection was lost and registers all objects anew, under new ids; patterns of events and
 * subscriptions are the caller's to register again. The descriptor is not in the loop afterwards: call ubus_add_uloop.
 * Calls that were in progress are forgotten.
 */
int ubus_reconnect(struct ubus_context *ctx, const char *path);
void ubus_free(struct ubus_context *ctx);

const char *ubus_strerror(int error);

static inline void ubus_add_uloop(struct ubus_context *ctx)
{
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/* Serves what has arrived, outside the loop. */
static inline void ubus_handle_event(struct ubus_context *ctx)
{
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

/* The object stays the caller's and must live until it is removed or the context freed. */
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

/*
 * Calls cb for every object at the path (null: all; a trailing * takes what begins so). Not found is status 4; an
 * object that this client may not use is found and not shown, and *id stays as it was.
 */
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/*
 * Calls a method and waits timeout_ms (0 or less: 30 s) for its end; cb (may be null) takes each answer. msg may be
 * null. Calls from others that arrive meanwhile are served later, from the loop.
 */
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout_ms);

/* Sends an answer of any size; the broker closes the connection for one above UBUS_MAX_MSGLEN. */
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);
/*
 * The caller's wait goes on after the handler has returned, until the copy is completed, which is to be done once.
 * Whether the caller still waits then does not matter. The texts of the copy's acl are not to be used.
 */
void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req, struct ubus_request_data *new_req);
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

/*
 * Notifies all subscribers of an own object. With a time-out of 0 ms or more it waits until the first 16 of them have
 * answered, whatever they answered; a negative one does not wait.
 */
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                int timeout);

/* The subscriber stays the caller's, as an object does. Subscribing twice delivers twice; to objects of others only. */
int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub);
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);
/* Several patterns may be registered for one handler. The handler's object is removed with ubus_remove_object. */
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);

#endif
