#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>

namespace modemsim {

/// The simulated modem's only clock: milliseconds of a monotonic clock that the caller hands in. Work that is due at
/// the same millisecond runs in the order in which it was planned, so a run depends on nothing but its input.
class TimerQueue {
public:
    int64_t now() const
    {
        return now_;
    }

    /// Plans `work` for `delay_ms` from now (0 or less: at the next run, after what is planned already).
    void after(int64_t delay_ms, std::function<void()> work);

    /// The time of the earliest planned work; empty when nothing is planned.
    std::optional<int64_t> next_due() const;

    /// Moves the clock to `now_ms` (never backwards) and runs what is due, each piece with the clock at its own time.
    void run_until(int64_t now_ms);

private:
    int64_t now_ = 0;
    uint64_t planned_ = 0;
    std::map<std::pair<int64_t, uint64_t>, std::function<void()>> work_;
};

} // namespace modemsim
