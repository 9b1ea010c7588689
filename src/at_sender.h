// The only writer to the AT port: writes the commands of at_tx_queue in order, unchanged.
#pragma once

// Thread function.
void *at_sender(void *);
