/* What crosses the bus socket: an 8-byte big-endian header, then one blob attribute (id 0) with a list of attributes. */
#ifndef UBUSMSG_H
#define UBUSMSG_H

#include <libubox/blob.h>

#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"

/* Bytes of blob in one message, its own header included. */
#define UBUS_MAX_MSGLEN 1048576

/* Object of the broker that takes events and registers for them. */
#define UBUS_SYSTEM_OBJECT_EVENT 1
/* Ids of clients, objects and object types are above this. */
#define UBUS_SYSTEM_OBJECT_MAX 1024

struct ubus_msghdr {
    uint8_t version;
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
} __packed;

enum ubus_msg_type {
    UBUS_MSG_HELLO = 0,
    UBUS_MSG_STATUS = 1,
    UBUS_MSG_DATA = 2,
    UBUS_MSG_PING = 3,
    UBUS_MSG_LOOKUP = 4,
    UBUS_MSG_INVOKE = 5,
    UBUS_MSG_ADD_OBJECT = 6,
    UBUS_MSG_REMOVE_OBJECT = 7,
    UBUS_MSG_SUBSCRIBE = 8,
    UBUS_MSG_UNSUBSCRIBE = 9,
    UBUS_MSG_NOTIFY = 10,
    UBUS_MSG_MONITOR = 11,
    __UBUS_MSG_LAST
};

enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC = 0,
    UBUS_ATTR_STATUS = 1,
    UBUS_ATTR_OBJPATH = 2,
    UBUS_ATTR_OBJID = 3,
    UBUS_ATTR_METHOD = 4,
    UBUS_ATTR_OBJTYPE = 5,
    UBUS_ATTR_SIGNATURE = 6,
    UBUS_ATTR_DATA = 7,
    UBUS_ATTR_TARGET = 8,
    UBUS_ATTR_ACTIVE = 9,
    UBUS_ATTR_NO_REPLY = 10,
    UBUS_ATTR_SUBSCRIBERS = 11,
    UBUS_ATTR_USER = 12,
    UBUS_ATTR_GROUP = 13,
    UBUS_ATTR_MAX
};

enum ubus_msg_status {
    UBUS_STATUS_OK = 0,
    UBUS_STATUS_INVALID_COMMAND = 1,
    UBUS_STATUS_INVALID_ARGUMENT = 2,
    UBUS_STATUS_METHOD_NOT_FOUND = 3,
    UBUS_STATUS_NOT_FOUND = 4,
    UBUS_STATUS_NO_DATA = 5,
    UBUS_STATUS_PERMISSION_DENIED = 6,
    UBUS_STATUS_TIMEOUT = 7,
    UBUS_STATUS_NOT_SUPPORTED = 8,
    UBUS_STATUS_UNKNOWN_ERROR = 9,
    UBUS_STATUS_CONNECTION_FAILED = 10,
    UBUS_STATUS_NO_MEMORY = 11,
    UBUS_STATUS_PARSE_ERROR = 12,
    UBUS_STATUS_SYSTEM_ERROR = 13,
    __UBUS_STATUS_LAST
};

#endif
