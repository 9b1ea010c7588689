// What the daemon relies on in the router's libraries, so that a build against others fails here and not on a router.
// Holds no code.

#include <cstddef>
#include <type_traits>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
#include <uci.h>
}

static_assert(BLOBMSG_TYPE_UNSPEC == 0 && BLOBMSG_TYPE_ARRAY == 1 && BLOBMSG_TYPE_TABLE == 2 && BLOBMSG_TYPE_STRING == 3);
static_assert(BLOBMSG_TYPE_INT32 == 5 && BLOBMSG_TYPE_INT16 == 6 && BLOBMSG_TYPE_INT8 == 7);
static_assert(offsetof(blobmsg_policy, name) < offsetof(blobmsg_policy, type));

static_assert(UBUS_STATUS_OK == 0 && UBUS_STATUS_INVALID_ARGUMENT == 2 && UBUS_STATUS_NOT_SUPPORTED == 8);
static_assert(offsetof(ubus_method, name) < offsetof(ubus_method, handler));
static_assert(offsetof(ubus_method, handler) < offsetof(ubus_method, policy));
static_assert(offsetof(ubus_method, policy) < offsetof(ubus_method, n_policy));
static_assert(std::is_same_v<decltype(ubus_context::sock), uloop_fd>);

static_assert(ULOOP_READ == 1 && ULOOP_WRITE == 2 && ULOOP_BLOCKING == 8);
static_assert(std::is_same_v<decltype(uloop_cancelled), bool>);

static_assert(UCI_OK == 0 && UCI_ERR_NOTFOUND == 3 && UCI_ERR_IO == 4 && UCI_ERR_PARSE == 5);
static_assert(uci_ptr::UCI_LOOKUP_COMPLETE == 2);
static_assert(UCI_TYPE_STRING == 0 && UCI_TYPE_LIST == 1);
static_assert(offsetof(uci_ptr, package) < offsetof(uci_ptr, section) && offsetof(uci_ptr, section) < offsetof(uci_ptr, option) &&
              offsetof(uci_ptr, option) < offsetof(uci_ptr, value));
