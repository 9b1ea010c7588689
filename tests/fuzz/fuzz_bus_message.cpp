// Two clients of the broker whose bytes are the input: the first byte of each piece tells who sends and how much.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "ubusd_broker.h"

namespace {

struct counting_sink : message_sink {
    size_t bytes = 0;
    void send(const std::vector<uint8_t> &message) override
    {
        bytes += message.size();
        if (message.size() < message_prefix_size || message.size() > message_header_size + UBUS_MAX_MSGLEN)
            abort(); // no client could take it
    }
    size_t queued() const override
    {
        return 0;
    }
};

struct fuzzed_client {
    counting_sink sink;
    message_reader reader;
    bus_client *client = nullptr;

    void join(broker &bus)
    {
        client = &bus.add_client(sink, "user", "group");
        reader = {};
    }

    void take(broker &bus, std::span<const uint8_t> input)
    {
        bus_message message;
        for (;;) {
            switch (reader.take(input, message)) {
            case message_reader::outcome::incomplete:
                return;
            case message_reader::outcome::malformed:
                bus.remove_client(*client);
                join(bus);
                return;
            case message_reader::outcome::complete:
                bus.receive(*client, message);
            }
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    broker bus;
    fuzzed_client clients[2];
    for (fuzzed_client &client : clients)
        client.join(bus);
    std::span<const uint8_t> rest(data, size);
    while (!rest.empty()) {
        fuzzed_client &sender = clients[rest[0] & 1];
        const size_t length = std::min<size_t>(rest.size() - 1, rest[0] >> 1);
        sender.take(bus, rest.subspan(1, length));
        rest = rest.subspan(1 + length);
    }
    return 0;
}
