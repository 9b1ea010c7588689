#include "modem.h"

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static constexpr const char *control_path = "/tmp/modem.control";
static constexpr const char *record_path = "/tmp/modem.record";
static constexpr const char *profile_path = "/tmp/modem.profile.json";

static std::vector<std::string> modem_command(const PrivateRoot &root, const ModemOptions &options)
{
    std::vector<std::string> argv = {"modemsim",   "--link",   options.link, "--control",
                                     control_path, "--record", record_path};
    if (options.latency_ms >= 0) {
        argv.insert(argv.end(), {"--latency", std::to_string(options.latency_ms)});
    }
    if (!options.profile.empty()) {
        root.write_file(profile_path, read_whole_file(options.profile));
        argv.insert(argv.end(), {"--profile", profile_path});
    }
    argv.insert(argv.end(), options.extra.begin(), options.extra.end());
    return argv;
}

Modem::Modem(PrivateRoot &root, const ModemOptions &options)
    : root_(root), process_(root.start(modem_command(root, options)))
{
    bool there =
        wait_for([&] { return (root_.exists(options.link) && root_.exists(control_path)) || !process_.running(); });
    if (!there || !process_.running()) {
        throw std::runtime_error("no simulated modem: " + process_.errors());
    }
}

static int connect_in_folder(const std::string &folder, const std::string &name)
{
    int folder_fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string path = "/proc/self/fd/" + std::to_string(folder_fd) + "/" + name;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    bool connected =
        folder_fd >= 0 && fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0;
    if (folder_fd >= 0) {
        (void)close(folder_fd);
    }
    if (!connected) {
        if (fd >= 0) {
            (void)close(fd);
        }
        throw std::runtime_error("no control socket of the simulated modem");
    }
    return fd;
}

nlohmann::json Modem::control(const std::string &line, std::chrono::milliseconds limit)
{
    int fd = connect_in_folder(root_.path("/tmp"), "modem.control");
    std::string text = line + "\n";
    std::string answer;
    bool going = send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    while (going && answer.find('\n') == std::string::npos) {
        struct pollfd readable = {fd, POLLIN, 0};
        char buffer[4096];
        ssize_t length = poll(&readable, 1, static_cast<int>(limit.count())) > 0 ? read(fd, buffer, sizeof(buffer)) : 0;
        going = length > 0;
        answer.append(buffer, going ? static_cast<size_t>(length) : 0);
    }
    (void)close(fd);
    nlohmann::json value = nlohmann::json::parse(answer.substr(0, answer.find('\n')), nullptr, false);
    return value.is_discarded() ? nlohmann::json() : value;
}

std::string Modem::record() const
{
    return root_.read_file(record_path);
}
