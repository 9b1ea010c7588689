// A broker of the test's own, in a temporary directory of the build tree that is the working directory meanwhile.
#pragma once

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "process.h"

// Connects to a UNIX socket; -1 when nobody listens. Reads give up after 10 s.
inline int connect_unix(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) {
        close(fd);
        return -1;
    }
    timeval limit = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

class BrokerTest : public ::testing::Test {
protected:
    static constexpr const char *socket_path = "bus.sock";

    void SetUp() override
    {
        before = std::filesystem::current_path();
        std::string name = std::string(BIN_DIR) + "/../tests/bus-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = std::filesystem::canonical(name);
        std::filesystem::current_path(folder);
        start_broker();
    }

    void TearDown() override
    {
        EXPECT_TRUE(broker.running()) << "the broker has died: " << broker.errors();
        EXPECT_EQ(broker.stop().code, 0) << broker.errors();
        EXPECT_FALSE(std::filesystem::exists(socket_path));
        std::filesystem::current_path(before);
        std::filesystem::remove_all(folder);
    }

    void start_broker()
    {
        ProcessOptions options;
        options.error_path = folder / "ubusd.err";
        broker = Process::start({std::string(BIN_DIR) + "/ubusd", "-s", socket_path}, options);
        ASSERT_TRUE(wait_for([] {
            int fd = connect_unix(socket_path);
            if (fd >= 0)
                close(fd);
            return fd >= 0;
        }));
    }

    Process broker;
    std::filesystem::path before;
    std::filesystem::path folder;
};
