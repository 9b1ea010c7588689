// Brings a freshly started modem into the state that the daemon works with. Runs on the requester's thread.
#pragma once

// Sends the whole initialisation, whatever fails on the way (each failure is logged), and starts a first network scan.
// 0 when everything succeeded, otherwise not 0. Ends early when the daemon stops.
int set_modem();

// Runs the commands of the configuration's "pre_execute_cmds" that have not succeeded yet, three tries each. 0 when all
// have now (the list is freed then), -1 when one failed or there is no list.
int handle_pre_execute_cmds();
