// The service on the bus: the thread `ubus_handler`, which has the object "celmux".
#pragma once

void *ubus_handler(void *);
// SIGUSR1 ends the event loop; any other signal gets its default action.
void sig_handler(int sig);
