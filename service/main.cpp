// lofthaven-service: the local reference service for the Lofthaven client.
#include "httpservice.h"
#include "serviceoptions.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string_view>
#include <sys/stat.h>
#include <thread>

using namespace lofthaven::service;

namespace {

bool isLoopback(const std::string &host)
{
    if (host == "localhost" || host == "::1")
        return true;
    in_addr a{};
    return inet_pton(AF_INET, host.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--help" || std::string_view(argv[i]) == "-h") {
            std::fputs(serviceUsage().c_str(), stdout);
            return 0;
        }
    }
    ServiceOptions options;
    std::string error;
    if (!parseServiceOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "lofthaven-service: %s\n%s", error.c_str(), serviceUsage().c_str());
        return 2;
    }
    if (options.testHooks && !isLoopback(options.host)) {
        std::fprintf(stderr, "lofthaven-service: --test-hooks only on a loopback address\n");
        return 2;
    }
    // Signals are taken by one thread with sigwait, so handlers stay trivial.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    // Everything the service writes (database, journal, parts) is its own.
    ::umask(077);

    try {
        HttpService service(options);
        const std::string origin = service.bind();
        std::printf("lofthaven-service listening on %s\n", origin.c_str());
        std::fflush(stdout);
        std::thread waiter([&] {
            int sig = 0;
            sigwait(&signals, &sig);
            std::fprintf(stderr, "lofthaven-service: stopping\n");
            service.stop();
        });
        const bool ok = service.run();
        // Wake the waiter if the server ended by itself.
        pthread_kill(waiter.native_handle(), SIGTERM);
        waiter.join();
        return ok ? 0 : 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "lofthaven-service: %s\n", e.what());
        return 1;
    }
}
