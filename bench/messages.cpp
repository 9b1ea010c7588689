// What happens to an incoming message, and when: announced by the modem, on the disk, off the SIM.

#include <fcntl.h>
#include <fmt/format.h>
#include <future>
#include <poll.h>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>

#include "bare_port.h"
#include "measurements.h"
#include "rig.h"
#include "spread.h"

using nlohmann::json;

// Sees when the message file has been synced and when the modem gets a command to delete, by their files.
class MessageWatch {
public:
    explicit MessageWatch(const Rig &rig) : rig_(rig), fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        // The file is synced before it is closed or renamed.
        int data = inotify_add_watch(fd_, rig.messages_folder().c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
        record_ = inotify_add_watch(fd_, rig.record_path().c_str(), IN_MODIFY);
        if (fd_ < 0 || data < 0 || record_ < 0)
            throw std::system_error(errno, std::generic_category(), "inotify");
        record_fd_ = open(rig.record_path().c_str(), O_RDONLY | O_CLOEXEC);
        (void)lseek(record_fd_, 0, SEEK_END);
    }
    ~MessageWatch()
    {
        (void)close(fd_);
        (void)close(record_fd_);
    }
    MessageWatch(const MessageWatch &) = delete;
    MessageWatch &operator=(const MessageWatch &) = delete;

    int saves = 0;
    int deletions = 0;
    Clock::time_point saved; // the last ones
    Clock::time_point deleted;

    void wait_for_deletions(int count)
    {
        constexpr int limit_ms = 30000;
        while (deletions < count) {
            if (!take_events(limit_ms))
                throw std::runtime_error("a message does not get off the SIM");
        }
    }

    // False when there are none in time.
    bool take_events(int limit_ms)
    {
        pollfd readable = {fd_, POLLIN, 0};
        bool ready = poll(&readable, 1, limit_ms) == 1;
        if (ready)
            read_events();
        return ready;
    }

private:
    void read_events()
    {
        alignas(inotify_event) char buffer[16384];
        ssize_t length = read(fd_, buffer, sizeof buffer);
        Clock::time_point now = Clock::now();
        for (ssize_t at = 0; at < length;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            if (event->wd == record_) {
                take_record(now);
            } else if (std::string_view(event->name) == "in_messages") {
                saves++;
                saved = now;
            }
        }
    }
    void take_record(Clock::time_point now)
    {
        char buffer[8192];
        for (ssize_t length; (length = read(record_fd_, buffer, sizeof buffer)) > 0;)
            text_.append(buffer, static_cast<size_t>(length));
        for (size_t end; (end = text_.find('\n')) != std::string::npos; text_.erase(0, end + 1)) {
            if (text_.substr(0, end).find(" AT+CMGD=") != std::string::npos) {
                deletions++;
                deleted = now;
            }
        }
    }

    const Rig &rig_;
    int fd_;
    int record_ = -1;
    int record_fd_ = -1;
    std::string text_;
};

static std::string order_of(int number)
{
    return fmt::format("sms +49170{:07d} \"message {} with some more text of the usual length\"", number, number);
}

// Answers are not waited for: what follows begins as soon as the modem acts.
static std::future<json> send_order(Rig &rig, int number)
{
    return std::async(std::launch::async, [&rig, number] { return rig.modem().control(order_of(number)); });
}

struct OwnTime {
    Spread announced; // from the order to "+CMTI:" at the port
    Spread read;      // exchange that reads the message
};

static OwnTime time_of_modem(Rig &rig, int messages)
{
    std::vector<double> announced, read;
    BarePort port(rig.port());
    for (int i = 0; i < messages; i++) {
        Clock::time_point begin = Clock::now();
        std::future<json> order = send_order(rig, i);
        std::string line = port.read_until("+CMTI:");
        announced.push_back(ms_since(begin));
        std::string index = line.substr(line.rfind(',') + 1);
        index = index.substr(0, index.find('\r'));
        begin = Clock::now();
        (void)port.exchange("AT+CMGR=" + index);
        read.push_back(ms_since(begin));
        (void)port.exchange("AT+CMGD=" + index);
        (void)order.get();
    }
    return {spread_of(announced), spread_of(read)};
}

// The disk's own time for as much as a message takes, in the folder of the messages.
static Spread time_of_disk(const Rig &rig, int rounds)
{
    std::string path = rig.messages_folder() + "/bench_sync", record(200, 'x');
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    std::vector<double> times;
    for (int i = 0; i < rounds; i++) {
        Clock::time_point begin = Clock::now();
        if (write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size()) || fsync(fd) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        times.push_back(ms_since(begin));
    }
    (void)close(fd);
    (void)unlink(path.c_str());
    return spread_of(times);
}

struct Arrivals {
    Spread on_disk; // from the order
    Spread deleted;
};

// `pause`: so long after a deletion daemon and modem are idle again.
static Arrivals one_by_one(Rig &rig, int messages, std::chrono::milliseconds pause)
{
    std::vector<double> on_disk, deleted;
    MessageWatch watch(rig);
    for (int i = 0; i <= messages; i++) {
        std::this_thread::sleep_for(pause);
        int saves = watch.saves;
        Clock::time_point begin = Clock::now();
        std::future<json> order = send_order(rig, i);
        watch.wait_for_deletions(i + 1);
        (void)order.get();
        if (watch.saves == saves)
            throw std::runtime_error("a message was deleted before it was saved");
        if (i == 0)
            continue; // it makes the file
        on_disk.push_back(ms_between(begin, watch.saved));
        deleted.push_back(ms_between(begin, watch.deleted));
    }
    return {spread_of(on_disk), spread_of(deleted)};
}

static void measure_one_by_one(int latency_ms, int messages, Table *table, Report *report)
{
    constexpr double allowance_ms = 20;
    Rig rig(latency_ms);
    rig.stop_daemon();
    OwnTime own = time_of_modem(rig, messages);
    Spread disk = time_of_disk(rig, messages);
    rig.start_daemon();
    Arrivals arrivals = one_by_one(rig, messages, std::chrono::milliseconds(2 * latency_ms + 40));
    double announced = own.announced.median, modem = own.read.median;
    table->rows.push_back({{"latency", latency_ms},
                           {"modem", modem},
                           {"sync", disk.median},
                           {"disk", arrivals.on_disk.median - announced},
                           {"disk_p99", arrivals.on_disk.p99 - announced},
                           {"beyond", arrivals.on_disk.median - announced - modem},
                           {"deleted", arrivals.deleted.median - announced},
                           {"deleted_p99", arrivals.deleted.p99 - announced}});
    report->goals.push_back({3, fmt::format("\"+CMTI:\" to disk, 99th percentile, modem latency {} ms", latency_ms),
                             arrivals.on_disk.p99 - announced, Bound::at_most, modem + allowance_ms, "ms"});
}

static json burst_row(Rig &rig, int messages)
{
    MessageWatch watch(rig);
    Clock::time_point begin = Clock::now();
    std::future<void> orders = std::async(std::launch::async, [&] {
        for (int i = 0; i < messages; i++)
            (void)rig.modem().control(order_of(1000 + i));
    });
    // One command may delete several messages: when there are no more commands the modem is asked how many are gone.
    constexpr int quiet_ms = 500, quiet_times = 60;
    for (int quiet = 0; rig.deleted_messages() < messages;) {
        quiet = watch.take_events(quiet_ms) ? 0 : quiet + 1;
        while (watch.take_events(quiet_ms)) {
        }
        if (quiet > quiet_times)
            throw std::runtime_error("messages do not get off the SIM");
    }
    orders.get();
    double elapsed_s = ms_between(begin, watch.deleted) / 1000;
    return {
        {"messages", messages}, {"seconds", elapsed_s}, {"per_second", messages / elapsed_s}, {"saves", watch.saves}};
}

void measure_messages(const Scale &scale, Report *report)
{
    const int messages = scale.of(200, 20), burst = scale.of(500, 60);
    Table one = {3,
                 fmt::format("one message, ms from \"+CMTI:\" on, {} messages one by one", messages),
                 {{"latency", "modem latency"},
                  {"modem", "modem's own time", 2},
                  {"sync", "disk's own sync", 2},
                  {"disk", "on disk", 2},
                  {"disk_p99", "on disk, p99", 2},
                  {"beyond", "beyond the modem", 2},
                  {"deleted", "deleted", 2},
                  {"deleted_p99", "deleted, p99", 2}},
                 {}};
    for (int latency_ms : {0, 5, 50})
        measure_one_by_one(latency_ms, messages, &one, report);
    Table many = {
        3,
        "messages at once, until the last is off the SIM; modem latency 0, a SIM of 20 places",
        {{"messages", "messages"}, {"seconds", "seconds", 2}, {"per_second", "per second", 1}, {"saves", "saves"}},
        {}};
    Rig rig(0);
    many.rows.push_back(burst_row(rig, burst));
    report->tables.push_back(one);
    report->tables.push_back(many);
}
