// The service on the bus: the thread `ubus_handler` and the object "celmux".
#pragma once

#include "calls.h"
#include "celmux.h"
#include "handler.h"
#include "log.h"

void *ubus_handler(void *);
// SIGUSR1 ends the event loop; any other signal gets its default action.
void sig_handler(int sig);
