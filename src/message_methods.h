// The methods on stored messages. They run on the ubus thread and return a bus status; messages are addressed by their
// 1-based position in the store. Data members come before "result".
#pragma once

#include "handler.h"

int handle_get_all_messages(HANDLER_ARGUMENTS);
int handle_get_message(HANDLER_ARGUMENTS);
int handle_read_message(HANDLER_ARGUMENTS);
int handle_read_messages(HANDLER_ARGUMENTS);
int handle_delete_all_messages(HANDLER_ARGUMENTS);
int handle_delete_message(HANDLER_ARGUMENTS);
int handle_delete_messages(HANDLER_ARGUMENTS);

extern const struct blobmsg_policy policy_message_index[1];
extern const struct blobmsg_policy policy_message_index_list[1];
