#include "timers.h"

#include <algorithm>

namespace modemsim {

void TimerQueue::after(int64_t delay_ms, std::function<void()> work)
{
    work_.emplace(std::pair{now_ + std::max<int64_t>(delay_ms, 0), planned_++}, std::move(work));
}

std::optional<int64_t> TimerQueue::next_due() const
{
    if (work_.empty())
        return std::nullopt;
    return work_.begin()->first.first;
}

void TimerQueue::run_until(int64_t now_ms)
{
    while (!work_.empty() && work_.begin()->first.first <= now_ms) {
        auto node = work_.extract(work_.begin());
        now_ = std::max(now_, node.key().first);
        node.mapped()();
    }
    now_ = std::max(now_, now_ms);
}

} // namespace modemsim
