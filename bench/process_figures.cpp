#include "process_figures.h"

#include <ctime>
#include <filesystem>
#include <string>

#include "process.h"

// The number behind "name:" at the start of a line, 0 without such a line.
static uint64_t field(const std::string &text, const std::string &name)
{
    size_t at = text.find("\n" + name + ":");
    return at == std::string::npos ? 0 : std::stoull(text.substr(at + name.size() + 2));
}

Activity activity_of(pid_t pid)
{
    Activity activity = {};
    std::string folder = "/proc/" + std::to_string(pid);
    for (const auto &task : std::filesystem::directory_iterator(folder + "/task"))
        activity.wakeups += field(read_whole_file(task.path().string() + "/status"), "voluntary_ctxt_switches");
    clockid_t clock;
    timespec time = {};
    if (clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &time) == 0)
        activity.processor_ns = static_cast<uint64_t>(time.tv_sec) * 1000000000u + static_cast<uint64_t>(time.tv_nsec);
    std::string stat = read_whole_file(folder + "/stat");
    size_t at = stat.rfind(')'); // the name before it may hold anything
    for (int number = 2; at != std::string::npos && number < 14; number++)
        at = stat.find(' ', at + 1);
    if (at != std::string::npos) {
        size_t user_length = 0;
        std::string rest = stat.substr(at + 1);
        activity.ticks = std::stoull(rest, &user_length);
        activity.ticks += std::stoull(rest.substr(user_length));
    }
    return activity;
}

Memory memory_of(pid_t pid)
{
    std::string folder = "/proc/" + std::to_string(pid);
    std::string maps = read_whole_file(folder + "/smaps_rollup");
    auto kb = [&](const char *name) { return static_cast<double>(field(maps, name)); };
    return {kb("Private_Dirty"), kb("Private_Clean"), kb("Shared_Clean") + kb("Shared_Dirty"),
            static_cast<double>(field(read_whole_file(folder + "/status"), "VmHWM"))};
}
