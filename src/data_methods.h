// Methods of the bus object on the data connection, the radio's switches and calls. All run on the ubus thread.
#pragma once

#include "handler.h"

extern const struct blobmsg_policy policy_set_autoconnect[1];
extern const struct blobmsg_policy policy_set_pdp_context_activation[2];
extern const struct blobmsg_policy policy_rmnet_call[5];
extern const struct blobmsg_policy policy_set_5gsa[1];
extern const struct blobmsg_policy policy_set_roaming_enable[1];
extern const struct blobmsg_policy policy_set_sms_message_format[1];
extern const struct blobmsg_policy policy_set_pcm_loopback_state[1];
extern const struct blobmsg_policy policy_set_fm160_usb_lock[1];

int handle_wanmd_enable(HANDLER_ARGUMENTS);
int handle_wanmd_disable(HANDLER_ARGUMENTS);
int handle_get_autoconnect(HANDLER_ARGUMENTS);
int handle_set_autoconnect(HANDLER_ARGUMENTS);
int handle_set_pdp_context_activation(HANDLER_ARGUMENTS);
int handle_rmnet_call(HANDLER_ARGUMENTS);
int handle_set_5gsa(HANDLER_ARGUMENTS);
int handle_set_roaming_enable(HANDLER_ARGUMENTS);
int handle_set_sms_message_format(HANDLER_ARGUMENTS);
int handle_set_pcm_loopback_state(HANDLER_ARGUMENTS);
int handle_set_fm160_usb_lock(HANDLER_ARGUMENTS);
int handle_hangup_call(HANDLER_ARGUMENTS);
int handle_get_current_apn(HANDLER_ARGUMENTS);
int handle_get_current_ims_apn(HANDLER_ARGUMENTS);
int handle_check_connectivity(HANDLER_ARGUMENTS);
int handle_get_pcm_loopback_state(HANDLER_ARGUMENTS);
