// orvella-account-server: the reference account server as a program.
//   orvella-account-server [--port N] [--https] [--state FILE]
//                          [--account USER:EMAIL:PASSWORD]...
// Prints the URL it listens on (and, with --https, the CA certificate to
// trust), then serves until interrupted. With --state the accounts, devices
// and stored values are kept in FILE across runs.

#include "AccountServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace {
volatile std::sig_atomic_t stopRequested = 0;
}

int main(int argc, char **argv)
{
    int port = 0;
    bool https = false;
    std::string stateFile;
    std::vector<std::string> accounts;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc)
            port = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--https") == 0)
            https = true;
        else if (std::strcmp(argv[i], "--state") == 0 && i + 1 < argc)
            stateFile = argv[++i];
        else if (std::strcmp(argv[i], "--account") == 0 && i + 1 < argc)
            accounts.emplace_back(argv[++i]);
        else {
            std::fprintf(stderr, "usage: %s [--port N] [--https] [--state FILE] [--account USER:EMAIL:PASSWORD]...\n",
                         argv[0]);
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
    if (!stateFile.empty() && !server.service().setStateFile(stateFile)) {
        std::fprintf(stderr, "orvella-account-server: cannot read the state file %s\n", stateFile.c_str());
        return 1;
    }
    for (const std::string &account : accounts) {
        const auto first = account.find(':');
        const auto second = first == std::string::npos ? first : account.find(':', first + 1);
        if (second == std::string::npos) {
            std::fprintf(stderr, "orvella-account-server: --account wants USER:EMAIL:PASSWORD\n");
            return 2;
        }
        server.service().addAccount(account.substr(0, first), account.substr(first + 1, second - first - 1),
                                    account.substr(second + 1));
    }
    // It runs until interrupted: nobody reads a record of its requests.
    server.setRecordsRequests(false);
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
