#include "wanmd.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>

#include "at_misc.h"
#include "log.h"
#include "shell.h"

constexpr char SOCKET_PATH[] = "tmp/wanmd_celmuxd_uds_file";
static_assert(sizeof SOCKET_PATH <= sizeof sockaddr_un{}.sun_path);

WanmdSocket celmuxd_wanmd_sockfd = {-1, 0, {}};

constexpr int8_t NOTHING_SENT = -1;
static std::atomic<int8_t> sim_status_sent{NOTHING_SENT}; // 1 ready, 0 absent

int celmuxd_wanmd_socket_init()
{
    WanmdSocket *link = &celmuxd_wanmd_sockfd;
    link->fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (link->fd == -1) {
        log_error("Error creating socket, errno: %d", errno);
        return -1;
    }
    if (fcntl(link->fd, F_SETFD, FD_CLOEXEC) == -1) {
        log_error("Couldn't set Close on Exec, errno: %d", errno);
        return -1;
    }
    link->address.sun_family = AF_UNIX;
    memcpy(link->address.sun_path, SOCKET_PATH, sizeof SOCKET_PATH);
    link->address_length = static_cast<uint32_t>(offsetof(sockaddr_un, sun_path) + strlen(SOCKET_PATH));
    return 0;
}

// Returns 0 or the error number.
static int send_notice(std::string_view text)
{
    const WanmdSocket *link = &celmuxd_wanmd_sockfd;
    ssize_t sent = sendto(link->fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr *>(&link->address), link->address_length);
    return sent == -1 ? errno : 0;
}

int at_wanmd_set_sim_status(uint8_t ready)
{
    const int8_t status = ready ? 1 : 0;
    if (sim_status_sent.load() == status)
        return 0;
    const char *text = status ? "sim_ready" : "sim_absent";
    if (int error = send_notice(text)) {
        log_error("Send failed set SIM status, with errno: %d", error);
        return -1;
    }
    log_error("Set %s success", text);
    sim_status_sent.store(status);
    return 0;
}

int at_wanmd_set_apn(int32_t family)
{
    const char *text = family == 0 ? "apn_ipv4" : family == 2 ? "apn_ipv6" : "apn_ipv4v6";
    if (int error = send_notice(text)) {
        log_error("Send failed set apn, with errno: %d", error);
        return -1;
    }
    log_error("Set %s success", text);
    return 0;
}

void at_wanmd_recall()
{
    if (int error = send_notice("re_call"))
        log_error("Send Failed %s, with errno: %d", __func__, error);
    else
        log_error("Sento %s success", __func__);
}

int wanmd_control(uint8_t enable)
{
    if (enable) {
        (void)at_set_functionality(1); // a connection manager that runs without radio tries again by itself
        (void)run_shell("/etc/init.d/wanmd restart &");
    } else {
        (void)run_shell("/etc/init.d/wanmd stop &");
        (void)run_shell("nvram set network_test test");
    }
    return 0;
}
