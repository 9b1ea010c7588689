#include "modem.h"

#include <fmt/format.h>

namespace modemsim {

namespace {

bool allowed(const Kept &kept, CellKind kind)
{
    int rat = kept.rat;
    bool automatic = rat == 10 || rat == 20;
    switch (kind) {
    case CellKind::none:
        return true;
    case CellKind::umts:
        return automatic || rat == 1 || rat == 4 || rat == 16;
    case CellKind::lte:
        return automatic || rat == 2 || rat == 4 || rat == 17;
    case CellKind::endc:
        return automatic || rat == 17;
    case CellKind::nr:
        return (automatic || rat == 14 || rat == 16 || rat == 17) && kept.sa == 1;
    }
    return false;
}

} // namespace

void Modem::start()
{
    messages.set_capacity(state.behaviour.sms_capacity);
    registered = radio_on();
    sim_awake = radio_on() || state.settings.cfun == 4;
    if (state.sim.lock && state.sim.state == SimState::ready)
        state.sim.state = SimState::pin;
}

bool Modem::radio_on() const
{
    return state.settings.cfun == 1;
}

bool Modem::sim_usable() const
{
    return state.sim.state == SimState::ready && sim_awake;
}

CellKind Modem::cell() const
{
    CellKind best = state.network.cell;
    if (!radio_on() || best == CellKind::none)
        return CellKind::none;
    for (CellKind kind : {best, CellKind::endc, CellKind::lte, CellKind::umts, CellKind::nr})
        if (allowed(state.kept, kind))
            return kind;
    return CellKind::none;
}

Registration Modem::registration() const
{
    if (!radio_on() || state.settings.cops_mode == 2)
        return Registration::off;
    if (!registered || !sim_usable() || cell() == CellKind::none)
        return Registration::searching;
    return state.network.registration;
}

bool Modem::has_service() const
{
    Registration now = registration();
    if (now == Registration::roaming)
        return state.kept.roaming == 1;
    return now == Registration::home;
}

bool Modem::context_has_address(int cid) const
{
    auto found = state.kept.contexts.find(cid);
    return found != state.kept.contexts.end() && found->second.active && state.behaviour.address;
}

void Modem::set_radio(int level)
{
    int before = state.settings.cfun;
    state.settings.cfun = level;
    if (level == before)
        return;
    if (level != 1) {
        registered = false;
        hang_up(true);
        for (auto &[cid, context] : state.kept.contexts)
            context.active = false;
        if (level == 0)
            sim_awake = false;
        report_registration();
        return;
    }
    if (state.sim.state != SimState::absent)
        unsolicited("+SIM: Inserted");
    wake_sim();
    search_network();
}

void Modem::wake_sim()
{
    timers.after(state.behaviour.sim_ready_ms, [this] {
        if (state.sim.state == SimState::absent || state.settings.cfun == 0)
            return;
        sim_awake = true;
        if (state.sim.state == SimState::ready)
            unsolicited("+SIM READY");
        else if (state.sim.state == SimState::pin)
            unsolicited("+CPIN: SIM PIN");
    });
}

void Modem::restart(int64_t away_ms)
{
    timers.after(state.behaviour.restart_delay_ms, [this, away_ms] {
        calls.clear();
        registered = false;
        sim_awake = false;
        state.settings = state.after_restart;
        for (auto &[cid, context] : state.kept.contexts)
            context.active = false;
        if (state.sim.lock && state.sim.state == SimState::ready)
            state.sim.state = SimState::pin;
        take_port_away(away_ms);
        timers.after(away_ms, [this] {
            wake_sim();
            search_network();
        });
    });
}

void Modem::pull_sim()
{
    if (state.sim.state == SimState::absent)
        return;
    state.sim.state = SimState::absent;
    unsolicited("+SIM: Removed");
    unsolicited("+SIM DROP");
    for (auto &[cid, context] : state.kept.contexts)
        context.active = false;
    search_network();
}

void Modem::return_sim()
{
    if (state.sim.state != SimState::absent)
        return;
    state.sim.state = SimState::ready;
    if (state.sim.lock)
        state.sim.state = state.sim.pin_left > 0 ? SimState::pin : SimState::puk;
    unsolicited("+SIM: Inserted");
    sim_awake = false;
    wake_sim();
    search_network();
}

void Modem::unlock_sim()
{
    state.sim.state = SimState::ready;
    wake_sim();
    search_network();
}

void Modem::search_network()
{
    registered = false;
    report_registration();
    uint64_t mine = ++search_;
    timers.after(state.behaviour.register_ms + (sim_awake ? 0 : state.behaviour.sim_ready_ms), [this, mine] {
        if (mine != search_ || !radio_on())
            return;
        registered = true;
        report_registration();
        if (has_service())
            store_waiting();
    });
}

void Modem::report_registration()
{
    CellKind kind = cell();
    int stat = static_cast<int>(registration());
    if (state.settings.creg > 0)
        unsolicited(fmt::format("+CREG: {}", stat));
    if (state.settings.cereg > 0)
        unsolicited(fmt::format("+CEREG: {}", kind == CellKind::lte || kind == CellKind::endc ? stat : 0));
    if (state.settings.c5greg > 0)
        unsolicited(fmt::format("+C5GREG: {}", kind == CellKind::nr ? stat : 0));
}

uint64_t Modem::receive(std::string pdu)
{
    uint64_t id = messages.arrive(std::move(pdu));
    if (has_service())
        store_waiting();
    return id;
}

void Modem::store_waiting()
{
    const auto &cnmi = state.settings.cnmi;
    while (messages.waiting() > 0) {
        if (cnmi[0] != 0 && cnmi[1] == 2) {
            const Message *direct = messages.deliver_directly();
            size_t centre = std::stoul(direct->pdu.substr(0, 2), nullptr, 16);
            unsolicited(fmt::format("+CMT: ,{}\r\n{}", direct->pdu.size() / 2 - 1 - centre, direct->pdu));
            continue;
        }
        const Message *stored = messages.place(state.settings.cpms[2]);
        if (stored == nullptr)
            return;
        if (cnmi[0] != 0 && cnmi[1] == 1)
            unsolicited(fmt::format("+CMTI: \"{}\",{}", stored->storage, stored->index));
    }
}

void Modem::ring(std::string number)
{
    calls.push_back({Call::Stage::incoming, std::move(number)});
    ring_again(++call_);
}

void Modem::ring_again(uint64_t call)
{
    if (call != call_ || calls.empty() || calls.back().stage != Call::Stage::incoming)
        return;
    const std::string &number = calls.back().number;
    unsolicited("RING");
    if (state.settings.clip == 1)
        unsolicited(fmt::format("+CLIP: \"{}\",{}", number, number.starts_with('+') ? 145 : 161));
    timers.after(state.behaviour.ring_interval_ms, [this, call] { ring_again(call); });
}

void Modem::hang_up(bool by_other_side)
{
    if (!calls.empty() && by_other_side)
        unsolicited("NO CARRIER");
    calls.clear();
    call_++;
}

int Modem::next_reference()
{
    reference_ = (reference_ + 1) % 256;
    return reference_;
}

void Modem::activate(int cid, bool active)
{
    Context &context = state.kept.contexts[cid];
    if (context.active == active)
        return;
    context.active = active;
    unsolicited(fmt::format("+CGEV: ME PDN {} {}", active ? "ACT" : "DEACT", cid));
}

} // namespace modemsim
