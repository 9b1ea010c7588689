#include "engine.h"

#include <limits>

namespace modemsim {

void Engine::unsolicited(const std::string &line)
{
    if (modem.state.behaviour.reports != Reports::between)
        return emit(frame_line(line), modem.state.behaviour.reports);
    held_.push_back(frame_line(line));
    if (!holding_)
        release_held();
}

void Engine::release_held()
{
    while (!held_.empty()) {
        std::string line = std::move(held_.front());
        held_.pop_front();
        push({{{std::move(line), 0}}, nullptr});
    }
}

void Engine::emit(std::string bytes, Reports place)
{
    if (place == Reports::between)
        return push({{{std::move(bytes), 0}}, nullptr});
    if (place == Reports::bytes)
        return put(bytes);
    hurried_.push_back(std::move(bytes));
    if (!playing_ || !line_open_)
        put_between_lines();
}

void Engine::put_between_lines()
{
    while (!hurried_.empty()) {
        std::string bytes = std::move(hurried_.front());
        hurried_.pop_front();
        put(bytes);
    }
}

void Engine::push(Job job)
{
    if (!present_)
        return;
    lane_.push_back(std::move(job));
    if (!playing_)
        play();
}

/// Puts the jobs out one after the other; a pause inside a job holds up those behind it.
void Engine::play()
{
    playing_ = true;
    uint64_t epoch = epoch_;
    while (epoch == epoch_ && !lane_.empty()) {
        Job &job = lane_.front();
        if (job.chunks.empty()) {
            auto done = std::move(job.done);
            lane_.pop_front();
            if (done)
                done();
            continue;
        }
        Chunk chunk = std::move(job.chunks.front());
        job.chunks.erase(job.chunks.begin());
        if (chunk.pause_ms > 0) {
            after(chunk.pause_ms, [this, text = std::move(chunk.text)] {
                put(text);
                play();
            });
            return;
        }
        put(chunk.text);
    }
    if (epoch == epoch_)
        playing_ = false;
}

void Engine::put(std::string_view bytes)
{
    if (!present_ || silent_until_ >= timers.now() || bytes.empty())
        return;
    host_.write(bytes);
    line_open_ = bytes.back() != '\n';
    if (!line_open_)
        put_between_lines();
}

void Engine::after(int64_t delay_ms, std::function<void()> work)
{
    timers.after(delay_ms, [this, epoch = epoch_, work = std::move(work)] {
        if (epoch == epoch_)
            work();
    });
}

void Engine::take_port_away(std::optional<int64_t> away_ms)
{
    epoch_++;
    losses_ += present_ ? 1 : 0;
    lane_.clear();
    held_.clear();
    hurried_.clear();
    line_open_ = false;
    input_.clear();
    line_.clear();
    echo_.clear();
    playing_ = false;
    busy_ = false;
    holding_ = false;
    message_mode_ = false;
    if (present_) {
        present_ = false;
        host_.set_port(false);
    }
    if (away_ms)
        after(*away_ms, [this] { bring_port_back(); });
}

void Engine::bring_port_back()
{
    if (present_)
        return;
    present_ = true;
    host_.set_port(true);
}

void Engine::be_silent(int64_t ms)
{
    silent_until_ = ms == 0 ? std::numeric_limits<int64_t>::max() : ms < 0 ? -1 : timers.now() + ms;
}

} // namespace modemsim
