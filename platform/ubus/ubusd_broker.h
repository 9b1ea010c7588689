// The broker: which message of a client goes where. It knows no sockets and never waits; everything that a client sends
// is bounded by the limits of ubusd_state.h.
#pragma once

#include "ubusd_state.h"

class broker {
public:
    // Puts a client on the bus and greets it. The sink must live until remove_client.
    bus_client &add_client(message_sink &sink, std::string user, std::string group);
    // Takes the client off with its objects; whoever waits for an answer of them is not told.
    void remove_client(bus_client &client);
    void receive(bus_client &client, bus_message &message);

private:
    int handle_request(bus_client &client, bus_message &message, blob_attr **tb);
    int handle_invoke(bus_client &client, const message_header &header, blob_attr **tb);

    bus_state bus;
};
