// The link to the connection manager `wanmd`: short notices by datagram, start and stop through its init script.
#pragma once

#include <cstdint>
#include <sys/un.h>

// Filled once by main, before any other thread starts; read only afterwards.
struct WanmdSocket {
    int32_t fd;              // UNIX datagram socket, -1 when it could not be made
    uint32_t address_length; // family and path without a terminating zero; 0 while the address is empty
    sockaddr_un address;     // where the connection manager listens
};

extern WanmdSocket celmuxd_wanmd_sockfd;

// Makes the socket and fills in the address of the connection manager, a path relative to the working directory.
// 0, or -1 after a log line: the daemon then runs without the link. Nothing is bound or connected.
int celmuxd_wanmd_socket_init();

// Each sends one notice without waiting and logs the outcome. 0, or -1 when nothing was sent. Any thread.
// SIM ready (not 0) or absent (0): sent only when it differs from what was last sent successfully.
int at_wanmd_set_sim_status(uint8_t ready);
// IP family of the default APN: 0 IPv4, 2 IPv6, anything else IPv4v6. Sent at every call.
int at_wanmd_set_apn(int32_t family);
// Asks for the data call to be set up again.
void at_wanmd_recall();

// enable not 0: radio on, then the connection manager is restarted. 0: it is stopped. Always 0. Blocks while the modem
// is asked (up to 40 s when it refuses to switch the radio on).
int wanmd_control(uint8_t enable);
