// Methods of the SIM card's PIN protection. They run on the ubus thread, block it for one AT exchange and return a bus
// status.
#pragma once

#include "handler.h"

int handle_get_sim_lock_status(HANDLER_ARGUMENTS);
int handle_set_sim_lock_status(HANDLER_ARGUMENTS);
int handle_get_sim_remaining_attempts(HANDLER_ARGUMENTS);
int handle_get_remaining_pin_retries(HANDLER_ARGUMENTS);
int handle_unlock_sim(HANDLER_ARGUMENTS);
int handle_change_sim_pin(HANDLER_ARGUMENTS);

extern const struct blobmsg_policy policy_set_sim_lock_status[2];
extern const struct blobmsg_policy policy_get_remaining_pin_retries[1];
extern const struct blobmsg_policy policy_unlock_sim[2];
extern const struct blobmsg_policy policy_change_sim_pin[2];
