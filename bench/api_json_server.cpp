// A minimal keep-alive HTTP server answering every GET with a small TransferMeta, for
// bench/api_json.sh when the reference service is not built. Usage: SERVER PORT
#include <httplib.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    const int port = argc > 1 ? std::atoi(argv[1]) : 8481;
    httplib::Server server;
    server.new_task_queue = [] { return new httplib::ThreadPool(16); };
    // Headers and body go out in separate writes; without this Nagle adds 40 ms per answer.
    server.set_tcp_nodelay(true);
    const std::string body = R"({"id":"bench1","name":"holiday.zip","size":123456789,)"
                             R"("isZip":true,"fileCount":3,"hasPassword":false,)"
                             R"("expiresAt":1767225600000,"code":"123456"})";
    server.Get(".*", [&](const httplib::Request &, httplib::Response &response) {
        response.set_content(body, "application/json");
    });
    std::printf("listening on %d\n", port);
    std::fflush(stdout);
    return server.listen("127.0.0.1", port) ? 0 : 1;
}
