// norva-records-service: a local stand-in of the records service, for trying the
// library and developing offline.
//
//   norva-records-service [--listen host:port] [--token-ttl seconds] [fault options] [data-folder]
#include "fault_injection.h"
#include "http_server.h"
#include "records_service.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

int usage(int code)
{
    std::printf("usage: norva-records-service [--listen host:port] [--token-ttl seconds] [fault options] [data-folder]\n"
                "  --listen     address to serve on (default 127.0.0.1:8765; port 0 picks a free one)\n"
                "  --token-ttl  how long a login token stays valid, in seconds (default 28800)\n"
                "  --max-body-mb N  the largest request body taken, in MiB (default 4096)\n"
                "  --idle-seconds N  how long a connection may stay silent (default 30)\n"
                "  data-folder  where the database and file contents live (default ./norva-data)\n"
                "  --add-user NAME:PASSWORD  add a user when the data folder has none of that name (repeatable)\n"
                "faults, for testing a host's error paths:\n"
                "  --delay-ms N              wait N ms before every answer\n"
                "  --fail PATH=STATUS[xN]    answer PATH with that HTTP status (the first N times; else always)\n"
                "  --drop PATH[xN]           close the connection without an answer for PATH\n"
                "  --expire-tokens           every token counts as expired (HTTP 402)\n");
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    norva::service::ServiceOptions options;
    norva::service::FaultInjection faults;
    norva::service::HttpLimits limits;
    std::string listen = "127.0.0.1:8765";
    std::vector<std::string> newUsers;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
            return usage(0);
        if (arg == "--listen" && i + 1 < argc)
            listen = argv[++i];
        else if (arg == "--token-ttl" && i + 1 < argc)
            options.tokenLifetimeSeconds = std::atoll(argv[++i]);
        else if (arg == "--max-body-mb" && i + 1 < argc && std::atoll(argv[i + 1]) > 0)
            limits.bodyBytes = std::uint64_t(std::atoll(argv[++i])) << 20;
        else if (arg == "--idle-seconds" && i + 1 < argc && std::atoi(argv[i + 1]) > 0)
            limits.idle = std::chrono::seconds(std::atoi(argv[++i]));
        else if (arg == "--delay-ms" && i + 1 < argc)
            faults.setDelayMs(std::atoi(argv[++i]));
        else if (arg == "--fail" && i + 1 < argc && faults.addFailure(argv[i + 1]))
            ++i;
        else if (arg == "--drop" && i + 1 < argc && faults.addDrop(argv[i + 1]))
            ++i;
        else if (arg == "--add-user" && i + 1 < argc && std::strchr(argv[i + 1], ':'))
            newUsers.push_back(argv[++i]);
        else if (arg == "--expire-tokens")
            options.expireTokens = true;
        else if (!arg.empty() && arg[0] != '-')
            options.dataFolder = arg;
        else
            return usage(2);
    }
    const auto colon = listen.rfind(':');
    if (colon == std::string::npos)
        return usage(2);
    std::string host = listen.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);

    norva::service::RecordsService service(options);
    std::string error;
    bool seeded = false;
    if (!service.open(error, seeded)) {
        std::fprintf(stderr, "norva-records-service: %s\n", error.c_str());
        return 1;
    }
    for (const std::string& user : newUsers) {
        const std::size_t colon = user.find(':');
        std::string taken;
        if (service.addUser(user.substr(0, colon), user.substr(colon + 1), taken))
            std::printf("added user %s\n", user.substr(0, colon).c_str());
    }
    limits.spoolFolder = service.spoolFolder();
    norva::service::HttpServer server(limits);
    if (!server.listen(host, std::atoi(listen.c_str() + colon + 1), error)) {
        std::fprintf(stderr, "norva-records-service: %s\n", error.c_str());
        return 1;
    }
    std::printf("data folder: %s\n", options.dataFolder.c_str());
    if (seeded)
        std::printf("created user %s with password %s\n", norva::service::RecordsService::seededUser,
                    norva::service::RecordsService::seededPassword);
    // Judged by the address bound, not by the name given: "0.0.0.0", a host
    // name or a card's address all reach beyond this machine.
    if (!server.loopbackOnly())
        std::fprintf(stderr, "norva-records-service: warning: serving on %s, beyond this machine; requests, "
                             "passwords and tokens go over the network in clear text\n", server.address().c_str());
    std::printf("listening on %s\n", server.address().c_str());
    std::fflush(stdout);

    server.stopOnSignals();
    const norva::service::HttpHandler handler = [&service, &faults](const norva::service::HttpRequest& request) {
        if (std::optional<norva::service::HttpResponse> fault = faults.intercept(request))
            return *fault;
        return service.handle(request);
    };
    server.run([&handler](norva::service::HttpConnection& connection) { serveRequests(connection, handler); });
    std::printf("stopped\n");
    return 0;
}
