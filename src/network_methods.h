// Methods of the operator, RAT and band selection, the network scan and the raw AT pass-through. They run on the ubus
// thread, block it for their AT exchanges (scan_network for none) and return a bus status.
#pragma once

#include "handler.h"

int handle_get_operator_info(HANDLER_ARGUMENTS);
int handle_select_operator(HANDLER_ARGUMENTS);
int handle_select_rat(HANDLER_ARGUMENTS);
int handle_set_network_mode(HANDLER_ARGUMENTS);
int handle_select_rat_and_band(HANDLER_ARGUMENTS);
int handle_get_gtccinfo(HANDLER_ARGUMENTS);
// The scan's result comes later, as an event.
int handle_scan_network(HANDLER_ARGUMENTS);
// Waits for at most 10 minutes, whatever the caller asks for.
int handle_at_passthrough(HANDLER_ARGUMENTS);

extern const struct blobmsg_policy policy_select_operator[4];
extern const struct blobmsg_policy policy_select_rat[3];
extern const struct blobmsg_policy policy_set_network_mode[2];
extern const struct blobmsg_policy policy_select_rat_and_band[4];
extern const struct blobmsg_policy policy_at_passthrough[2];
