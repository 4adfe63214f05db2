// orvella-account-server: the reference account server as a program.
//   orvella-account-server [--port N] [--https]
// Prints the URL it listens on (and, with --https, the CA certificate to
// trust), then serves until interrupted.

#include "AccountServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

namespace {
volatile std::sig_atomic_t stopRequested = 0;
}

int main(int argc, char **argv)
{
    int port = 0;
    bool https = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc)
            port = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--https") == 0)
            https = true;
        else {
            std::fprintf(stderr, "usage: %s [--port N] [--https]\n", argv[0]);
            return 2;
        }
    }
    std::signal(SIGINT, [](int) { stopRequested = 1; });
    std::signal(SIGTERM, [](int) { stopRequested = 1; });

    orv::server::TestCertificate certificate;
    const std::string folder = (std::filesystem::temp_directory_path() / "orvella-account-server").string();
    std::filesystem::create_directories(folder);
    if (https)
        certificate = orv::server::TestCertificate::generate();
    orv::server::AccountServer server(https ? &certificate : nullptr, folder);
    if (!server.start(port)) {
        std::fprintf(stderr, "orvella-account-server: cannot listen on 127.0.0.1:%d\n", port);
        return 1;
    }
    std::cout << server.baseURL() << std::endl;
    if (https)
        std::cout << "CA certificate: " << folder << "/cert.pem" << std::endl;
    while (!stopRequested)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    server.stop();
    return 0;
}
