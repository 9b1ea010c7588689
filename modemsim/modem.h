#pragma once

#include "sms_store.h"
#include "state.h"
#include "timers.h"

#include <functional>
#include <string>
#include <vector>

namespace modemsim {

struct Call {
    enum class Stage { active = 0, dialing = 2, incoming = 4 };
    Stage stage = Stage::incoming;
    std::string number;
};

/// A message that the host handed over for sending.
struct Submission {
    std::string pdu; ///< as it came, in text mode the text
    int length = 0;  ///< of the AT+CMGS line
    int reference = 0;
    int result = 0; ///< 0 sent, else the +CMS ERROR
};

/// The modem behind the command interpreter: its state and everything that happens in it by itself.
class Modem {
public:
    explicit Modem(TimerQueue &clock) : timers(clock) {}

    State state;
    SmsStore messages;
    std::vector<Submission> submissions;
    std::vector<Call> calls;
    bool registered = true; ///< searching has come to its end
    bool sim_awake = true;  ///< the card has been started since power-up
    TimerQueue &timers;

    std::function<void(const std::string &line)> unsolicited; ///< set by the owner
    std::function<void(int64_t away_ms)> take_port_away;      ///< set by the owner: the port goes and comes back

    /// Takes over what a profile set: the radio is in the state that the profile describes, nothing is under way.
    void start();

    bool radio_on() const;
    bool sim_usable() const;
    /// The cell that serves now: none without radio, otherwise what the place offers within AT+GTACT and 5GSACTR.
    CellKind cell() const;
    /// What AT+CREG? reports: `off` without radio, `searching` without a usable card or cell.
    Registration registration() const;
    bool has_service() const;
    bool context_has_address(int cid) const;

    /// AT+CFUN level 0, 1 or 4.
    void set_radio(int level);
    /// Restarts after `behaviour.restart_delay_ms`: the port goes away, settings and calls are lost, the card starts
    /// again.
    void restart(int64_t away_ms);
    void pull_sim();
    void return_sim();
    void unlock_sim();
    /// Looks for a network again; registration is reported after `behaviour.register_ms`.
    void search_network();
    /// Tells the host what AT+CREG and its kin asked for.
    void report_registration();

    /// A message from the network: stored and announced, or delivered directly, as AT+CNMI says.
    uint64_t receive(std::string pdu);
    /// Gives what the network holds back to the storage as long as there is room.
    void store_waiting();

    void ring(std::string number);
    /// Ends all calls; the host is told when the other side hung up.
    void hang_up(bool by_other_side);

    int next_reference();
    void activate(int cid, bool active);

private:
    void wake_sim();
    void ring_again(uint64_t call);

    uint64_t search_ = 0; ///< only the latest search comes to an end
    uint64_t call_ = 0;
    int reference_ = 0;
};

} // namespace modemsim
