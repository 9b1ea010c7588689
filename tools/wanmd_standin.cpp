// wanmd_standin: takes the connection manager's place at its datagram socket and prints each datagram as one line.
// Bytes that would break the line are shown as \xNN, a backslash as \\, so that a line tells the datagram byte for
// byte.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// Relative, as the daemon has it: both run with "/" as their working folder on a router.
static constexpr const char *socket_path = "tmp/wanmd_celmuxd_uds_file";

static std::string as_line(const unsigned char *bytes, size_t length)
{
    std::string line;
    for (size_t i = 0; i < length; i++) {
        if (bytes[i] == '\\') {
            line += "\\\\";
        } else if (isprint(bytes[i]) != 0) {
            line += static_cast<char>(bytes[i]);
        } else {
            char text[5];
            (void)snprintf(text, sizeof(text), "\\x%02x", bytes[i]);
            line += text;
        }
    }
    return line + '\n';
}

static int open_socket()
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)strncpy(address.sun_path, socket_path, sizeof(address.sun_path) - 1);
    (void)unlink(socket_path); // one left by an earlier run
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) {
        (void)fprintf(stderr, "wanmd_standin: %s: %s\n", socket_path, strerror(errno));
        return -1;
    }
    return fd;
}

int main()
{
    int fd = open_socket();
    if (fd < 0) {
        return 1;
    }
    unsigned char buffer[65536];
    for (;;) {
        ssize_t length = recv(fd, buffer, sizeof(buffer), 0);
        if (length < 0 && errno != EINTR) {
            perror("wanmd_standin: recv");
            return 1;
        }
        if (length < 0) {
            continue;
        }
        std::string line = as_line(buffer, static_cast<size_t>(length));
        if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || fflush(stdout) != 0) {
            return 1;
        }
    }
}
