#include "ubusd_server.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

int main(int argc, char **argv)
{
    CLI::App app("The bus broker");
    std::string path = UBUS_UNIX_SOCKET;
    app.add_option("-s", path, "Socket to listen at")->capture_default_str();
    std::string rights;
    app.add_option("-A", rights, "Not offered by this broker");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 1;
    }

    if (!rights.empty()) {
        fprintf(stderr, "ubusd: this broker knows no access lists; only its own user may use it\n");
        return 1;
    }

    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    signal(SIGPIPE, SIG_IGN);

    bus_server server;
    if (std::string error = server.listen_at(path); !error.empty()) {
        fprintf(stderr, "ubusd: %s\n", error.c_str());
        return 1;
    }
    if (!server.run()) {
        perror("ubusd");
        return 1;
    }
    return 0;
}
