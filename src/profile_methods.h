// Methods of the bus object on APN profiles. All run on the ubus thread.
#pragma once

#include "handler.h"

extern const struct blobmsg_policy policy_set_default_apn[5];
extern const struct blobmsg_policy policy_select_profile[1];
extern const struct blobmsg_policy policy_add_profile[6];
extern const struct blobmsg_policy policy_get_profile[1];
extern const struct blobmsg_policy policy_delete_profile[1];
extern const struct blobmsg_policy policy_modify_profile[7];

int handle_set_default_apn(HANDLER_ARGUMENTS);
int handle_select_profile(HANDLER_ARGUMENTS);
int handle_add_profile(HANDLER_ARGUMENTS);
int handle_get_profile_list(HANDLER_ARGUMENTS);
int handle_get_profile(HANDLER_ARGUMENTS);
int handle_delete_profile(HANDLER_ARGUMENTS);
int handle_modify_profile(HANDLER_ARGUMENTS);
