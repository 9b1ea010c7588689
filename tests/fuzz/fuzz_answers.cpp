// The first byte chooses a query of one value, or a function of packet data, calls and modes; the second the room for
// the value; the rest is the modem's answer, or the text of a caller.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "at_misc.h"
#include "at_packet.h"
#include "at_query.h"
#include "at_text.h"
#include "fake_clock.h"
#include "fake_modem_link.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "profile_store.h"

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

// Exactly as large as it says, so that one byte too far is seen.
struct Room {
    explicit Room(size_t wanted) : size(wanted), text(std::make_unique<char[]>(wanted)) {}
    std::span<char> span() const
    {
        return {text.get(), size};
    }
    void require_terminated() const
    {
        require(memchr(text.get(), '\0', size) != nullptr);
    }
    size_t size;
    std::unique_ptr<char[]> text;
};

const AtQuery *const queries[] = {
    &imei_query,           &imsi_query,         &ccid_query,        &msisdn_query,
    &roaming_status_query, &support_tech_query, &prefer_tech_query, &model_query,
    &manufacturer_query,   &current_tech_query, &hw_version_query,  &sw_version_query,
    &sim_status_query,     &pdp_contexts_query, &caller_id_query,   &network_requested_query,
};

void query(size_t row, size_t size)
{
    Room room(size);
    at_run_query(*queries[row], room.span());
    room.require_terminated();
}

void sim_status(size_t size)
{
    Room room(size);
    at_get_sim_status(room.span());
    room.require_terminated();
}

void current_apn(size_t size)
{
    Room room(size);
    int32_t family = -1;
    at_get_current_apn(static_cast<int32_t>(size % 3), room.span(), &family);
    room.require_terminated();
    require(family == -1 || family == 0 || family == 2 || family == 3);
}

void states(size_t)
{
    uint8_t connected = 0, enabled = 0;
    at_check_connectivity(&connected);
    at_get_pcm_loopback_state(&enabled);
    at_set_ims_voice(1);
    at_set_functionality(1);
    require(connected <= 1 && enabled <= 1);
}

// Whatever a caller writes, each command that goes out is one.
void callers_text(const std::string &text)
{
    fake_link.answer_always("\r\nOK\r\n");
    ApnProfile profile = {};
    profile.apn = profile.username = profile.password = text.c_str();
    profile.auth = 1;
    RmnetCallRequest call = {};
    call.has_apn = 1;
    call.apn = text;
    at_set_pdp_auth(3, &profile);
    at_set_pdp_context(3, &profile);
    at_check_pdp_profile(3, &profile);
    at_rmnet_call(&call);
    at_set_pcm_loopback_state(text.c_str());
    for (const std::string &command : fake_link.sent) {
        require(command.size() < sizeof(AtCommand::text) && command.ends_with('\r'));
        require(command.find_first_of(std::string("\r\n\x1a\x1b\0", 5)) == command.size() - 1);
    }
    for (const std::string &command : fake_shell.commands)
        require(command.starts_with("uci ") && command.find_first_of("'\"`$;|&<>\n") == std::string::npos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using Function = void (*)(size_t);
    const Function functions[] = {sim_status, current_apn, states};
    if (size < 2)
        return 0;
    fake_link.reset();
    fake_shell.reset();
    fake_wanmd.reset();
    fake_clock.reset();
    const std::string text(reinterpret_cast<const char *>(data) + 2, size - 2);
    fake_link.answer_always(text);
    const size_t room = 1 + data[1] * size_t{2};
    const size_t choice = data[0] % (std::size(queries) + std::size(functions) + 1);
    if (choice < std::size(queries))
        query(choice, room);
    else if (choice < std::size(queries) + std::size(functions))
        functions[choice - std::size(queries)](room);
    else
        callers_text(text);
    return 0;
}
