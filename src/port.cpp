#include "port.h"
#include "files.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include "config.h"
#include "log.h"
#include "waiting.h"

#ifndef IUCLC
#define IUCLC 0001000 // Linux has it; POSIX headers may hide it
#endif
#ifndef CMSPAR
#define CMSPAR 010000000000
#endif

// The descriptors that the two threads, or main for the reader, opened last. They may have been closed since.
static std::atomic<int> reader_fd{-1}, writer_fd{-1};
static std::atomic<int> claimed_fd{-1}; // opened by claim_port, for the reader's first open
static std::atomic<uint8_t> claim_kept{0};

// A pseudo-terminal keeps that state after all its users have ended or were killed, and then only root can open it. So
// the lock of the file has to be enough for a pseudo-terminal.
static bool is_pseudo_terminal(int fd)
{
    constexpr unsigned FIRST_MAJOR = 136, LAST_MAJOR = 143;
    struct stat status;
    return fstat(fd, &status) == 0 && major(status.st_rdev) >= FIRST_MAJOR && major(status.st_rdev) <= LAST_MAJOR;
}

static void mark_exclusive(bool exclusive)
{
    for (int fd : {reader_fd.load(), writer_fd.load()}) {
        if (fd != -1 && !is_pseudo_terminal(fd))
            (void)ioctl(fd, exclusive ? TIOCEXCL : TIOCNXCL); // what is no terminal has the lock of the file
    }
}

// Only the reader's descriptor holds the lock. The process has the lock for as long as that descriptor is open.
static bool lock_port(int fd)
{
    return flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

static int open_and_lock(const Settings *settings, int flags)
{
    const bool reads = (flags & O_ACCMODE) == O_RDONLY;
    mark_exclusive(false); // our other descriptor's mark would keep us out too
    int fd = open(settings->port, flags | O_CLOEXEC | (settings->port_type == PORT_SERIAL ? O_NOCTTY : 0));
    if (fd != -1 && reads && !lock_port(fd)) {
        close(fd);
        fd = -1;
        errno = EBUSY;
    }
    int error = errno;
    if (fd != -1)
        (reads ? reader_fd : writer_fd).store(fd);
    mark_exclusive(true);
    errno = error;
    return fd;
}

bool claim_port(const Settings *settings)
{
    int fd = open_and_lock(settings, O_RDONLY | O_NONBLOCK); // a terminal without a carrier would keep us waiting
    if (fd == -1)
        return errno != EBUSY; // the threads tell what is wrong with it
    termios line;
    if (settings->port_type == PORT_SERIAL && tcgetattr(fd, &line) == 0) {
        line.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON); // the modem would get back what it says until then
        (void)tcsetattr(fd, TCSANOW, &line);
    }
    (void)fcntl(fd, F_SETFL, O_RDONLY);
    claimed_fd.store(fd);
    claim_kept.store(1);
    return true;
}

void leave_claim_to_parent()
{
    int fd = claimed_fd.exchange(-1);
    if (fd != -1)
        close(fd);
}

int open_port(const Settings *settings, int flags)
{
    int fd = (flags & O_ACCMODE) == O_RDONLY ? claimed_fd.exchange(-1) : -1;
    return fd != -1 ? fd : open_and_lock(settings, flags);
}

int open_configured_port(const Settings *settings, int flags, const char *thread)
{
    int fd = open_port(settings, flags);
    if (fd == -1) {
        int error = errno;
        CELMUX_LOG(LOG_ERR, "error %i from open %s: %s", thread, error, settings->port, strerror(error));
        errno = error;
        return -1;
    }
    if (settings->port_type == PORT_SERIAL && config_serial_port(fd, settings) == -1) {
        CELMUX_LOG(LOG_ERR, "failed to configure serial port", thread);
        close(fd);
        errno = 0;
        return -1;
    }
    return fd;
}

// Errors that a device gives which is about to disappear or is not there yet.
static bool device_absent(int error)
{
    return error == ENOENT || error == ENXIO || error == ENODEV || error == EIO || error == EAGAIN || error == EBUSY;
}

// Only the reader's descriptor holds the lock, so the writer comes second. False when the daemon stops.
static bool let_reader_lock(const char *path)
{
    constexpr uint32_t LOOK_MS = 100;
    while (claim_kept.load() && file_exists(path) && !port_is_same(reader_fd.load(), path)) {
        if (!sleep_while_running(LOOK_MS))
            return false;
    }
    return true;
}

int reopen_lost_port(const Settings *settings, int flags, const char *thread)
{
    constexpr uint32_t LOOK_MS = 2000;
    CELMUX_LOG(LOG_ERR, "Serial port(%s) lost, waiting for modem up!\n", thread, settings->port);
    for (;;) {
        do {
            if (!sleep_while_running(LOOK_MS))
                return -1;
        } while (!file_exists(settings->port));
        if ((flags & O_ACCMODE) == O_WRONLY && !let_reader_lock(settings->port))
            return -1;
        if ((flags & O_ACCMODE) == O_RDONLY)
            CELMUX_LOG(LOG_INFO, "Reopen Serial port(%s) again!\n", thread, settings->port);
        int fd = open_configured_port(settings, flags, thread);
        if (fd != -1 || !device_absent(errno))
            return fd;
    }
}

bool port_is_same(int fd, const char *path)
{
    struct stat now, opened;
    if (stat(path, &now) == -1 || fstat(fd, &opened) == -1)
        return false;
    return now.st_dev == opened.st_dev && now.st_ino == opened.st_ino && now.st_rdev == opened.st_rdev;
}

static bool speed_constant(uint32_t speed, speed_t *constant)
{
    static constexpr struct {
        uint32_t speed;
        speed_t constant;
    } speeds[] = {
        {0, B0},
        {50, B50},
        {75, B75},
        {110, B110},
        {134, B134},
        {150, B150},
        {200, B200},
        {300, B300},
        {600, B600},
        {1200, B1200},
        {1800, B1800},
        {2400, B2400},
        {4800, B4800},
        {9600, B9600},
        {19200, B19200},
        {38400, B38400},
        {57600, B57600},
        {115200, B115200},
        {230400, B230400},
        {460800, B460800},
        {500000, B500000},
        {576000, B576000},
        {921600, B921600},
        {1000000, B1000000},
        {1152000, B1152000},
        {1500000, B1500000},
        {2000000, B2000000},
        {2500000, B2500000},
        {3000000, B3000000},
        {3500000, B3500000},
        {4000000, B4000000},
    };
    for (const auto &row : speeds) {
        if (row.speed == speed) {
            *constant = row.constant;
            return true;
        }
    }
    return false;
}

static int set_frame(termios *line, const Settings *settings)
{
    static constexpr tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    line->c_cflag &= ~static_cast<tcflag_t>(CSIZE);
    if (settings->serial_databits < 5 || settings->serial_databits > 8) {
        CELMUX_LOG(LOG_ERR, "invalid char len: %d", "config_serial_port", static_cast<int>(settings->serial_databits));
        return -1;
    }
    line->c_cflag |= sizes[settings->serial_databits - 5];

    if (settings->serial_stopbits > 2) {
        CELMUX_LOG(LOG_ERR, "invalid stop bit: %d", "config_serial_port", static_cast<int>(settings->serial_stopbits));
        return -1;
    }
    line->c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
    if (settings->serial_stopbits != 0)
        line->c_cflag |= CSTOPB; // one and a half is what the hardware makes of two at five data bits

    static constexpr struct {
        tcflag_t clear;
        tcflag_t set;
    } parities[] = {
        {PARENB | PARODD, 0},          // none
        {PARODD, PARENB},              // even
        {0, PARENB | PARODD},          // odd
        {0, PARENB | PARODD | CMSPAR}, // mark
        {PARODD, PARENB | CMSPAR},     // space
    };
    line->c_iflag &= ~static_cast<tcflag_t>(INPCK | ISTRIP);
    if (settings->serial_parity >= sizeof parities / sizeof parities[0]) {
        CELMUX_LOG(LOG_ERR, "invalid parity: %d", "config_serial_port", static_cast<int>(settings->serial_parity));
        return -1;
    }
    line->c_cflag &= ~parities[settings->serial_parity].clear;
    line->c_cflag |= parities[settings->serial_parity].set;
    return 0;
}

static void set_flow_control(termios *line, uint32_t flowcontrol)
{
    switch (flowcontrol) {
    case 1: // software
        line->c_iflag |= IXON | IXOFF;
        line->c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
        break;
    case 2: // hardware
        line->c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
        line->c_cflag |= CRTSCTS;
        break;
    default:
        line->c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
        line->c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    }
}

int config_serial_port(int fd, const Settings *settings)
{
    if (fd == -1)
        return -1;
    termios line;
    if (tcgetattr(fd, &line) != 0) {
        log_error("error %i from tcgetattr: %s", errno, strerror(errno));
        return -1;
    }
    line.c_cflag |= CLOCAL | CREAD;
    line.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | IEXTEN);
    line.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    line.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | PARMRK | INLCR | IGNCR | ICRNL | IUCLC);

    speed_t speed;
    bool standard_speed = speed_constant(settings->serial_speed, &speed);
    if (standard_speed)
        cfsetspeed(&line, speed);
    if (set_frame(&line, settings) == -1)
        return -1;
    set_flow_control(&line, settings->serial_flowcontrol);

    // A read returns at once with what is buffered; the listener ends a burst on the first empty one.
    line.c_cc[VMIN] = 0;
    line.c_cc[VTIME] = 0;
    (void)tcsetattr(fd, TCSANOW, &line); // a line that takes only part of this still works as a port
    if (!standard_speed) {
        log_error("OS does not currently support custom bauds");
        return -1;
    }
    return 0;
}
