// Methods that report the radio: signal figures, serving cells, the figures of the 5G cell, the RAT and band
// preference. They run on the ubus thread, block it for one AT exchange (get_signal_quality for up to four) and return
// a bus status.
#pragma once

#include "handler.h"

int handle_get_rssi(HANDLER_ARGUMENTS);
int handle_get_extended_signal_quality(HANDLER_ARGUMENTS);
int handle_get_signal_quality(HANDLER_ARGUMENTS);
int handle_get_current_cell_info(HANDLER_ARGUMENTS);
int handle_get_current_cell_info_explained(HANDLER_ARGUMENTS);
int handle_get_cell_info(HANDLER_ARGUMENTS);
int handle_get_current_rat_and_band(HANDLER_ARGUMENTS);
