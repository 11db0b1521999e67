// SPDX-License-Identifier: MIT
// norva-records-service: a local stand-in of the records service, for trying the
// library and developing offline.
//
//   norva-records-service [--listen host:port] [--token-ttl seconds] [TLS options] [fault options] [data-folder]
#include "certificates.h"
#include "fault_injection.h"
#include "http_server.h"
#include "passwords.h"
#include "records_service.h"
#include "tls_session.h"
#include "whole_number.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using norva::service::wholeNumber;

namespace {

int usage()
{
    std::printf("usage: norva-records-service [--listen host:port] [--token-ttl seconds] [TLS options] [fault options] [data-folder]\n"
                "       norva-records-service --version\n"
                "  --listen     address to serve on (default 127.0.0.1:8765; port 0 picks a free one)\n"
                "  --token-ttl  how long a login token stays valid, in seconds (default 28800)\n"
                "  --max-body-mb N  the largest request body taken, in MiB (default 4096)\n"
                "  --idle-seconds N  how long a connection may stay silent (default 30)\n"
                "  --max-memory-mb N  request bodies held in memory at once, in MiB (default 256), a JSON\n"
                "                     body counting 11 times its size (its parsed form); a body beyond is\n"
                "                     answered 503 (forms go to disk and don't count); connections' read\n"
                "                     buffers and TLS sessions count too\n"
                "  data-folder  where the database and file contents live (default ./norva-data)\n"
                "  --add-user NAME   add a user when the data folder has none of that name, with the password\n"
                "                    read from standard input (one line); NAME:@FILE reads it from FILE's first\n"
                "                    line; NAME:PASSWORD takes it as given, where every local user sees it (repeatable)\n"
                "HTTPS:\n"
                "  --tls-cert FILE --tls-key FILE  serve HTTPS with this PEM certificate (chain) and key\n"
                "  --tls-self-signed  serve HTTPS with a certificate of its own for this machine and the\n"
                "                     listen address, kept in the data folder (made again for a new address or\n"
                "                     near its end); prints the file clients trust (norva --cacert FILE)\n"
                "faults, for testing a host's error paths:\n"
                "  --delay-ms N              wait N ms before every answer\n"
                "  --fail PATH=STATUS[xN]    answer PATH with that HTTP status, 200-599 (the first N times; else always)\n"
                "  --drop PATH[xN]           close the connection without an answer for PATH\n"
                "  --expire-tokens           every token counts as expired (HTTP 402)\n"
                "  --slow-hash-ms N          every password hash takes N ms longer\n");
    return 0;
}

// Says which argument was not understood; a service that silently took "5s"
// as 0 would test something else than its user meant.
int misuse(const std::string& what)
{
    std::fprintf(stderr, "norva-records-service: %s (see --help)\n", what.c_str());
    return 2;
}

// "host:port", "[v6]:port"; the port from 0 (any free one) to 65535.
bool readAddress(const std::string& text, std::string& host, int& port)
{
    const std::size_t colon = text.rfind(':');
    const std::optional<long long> number =
        colon == std::string::npos ? std::nullopt : wholeNumber(text.substr(colon + 1), 0, 65535);
    if (!number || colon == 0)
        return false;
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    port = int(*number);
    return true;
}

std::string fileText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The self-signed certificate and key in `folder`, for this machine's names
// and `host`: made on first use, and made again when the names it was made
// for are not these (the service moved to another address) or it has less than
// 30 days left. False with `error` set when they can't be.
bool selfSignedFiles(const std::string& folder, const std::string& host, std::string& certificateFile,
                     std::string& keyFile, std::string& error)
{
    certificateFile = folder + "/tls-certificate.pem";
    keyFile = folder + "/tls-key.pem";
    const std::string namesFile = folder + "/tls-certificate.names";
    norva::service::CertificateRequest request;
    request.commonName = "norva-records-service";
    request.hosts = {"localhost", "127.0.0.1", "::1"};
    char machine[256] = {};
    if (::gethostname(machine, sizeof machine - 1) == 0 && machine[0])
        request.hosts.push_back(machine);
    if (host != "0.0.0.0" && host != "::" && host != "localhost" && host != "127.0.0.1" && host != "::1"
        && host != machine)
        request.hosts.push_back(host);
    std::string names;
    for (const std::string& name : request.hosts)
        names += name + "\n";
    const norva::service::Validity validity = norva::service::validityOf(fileText(certificateFile));
    if (std::ifstream(keyFile) && validity.read && validity.secondsLeft > 30 * 86400 && fileText(namesFile) == names)
        return true;
    // An end-entity certificate (CA:FALSE): a client that trusts it trusts
    // this service's names and nothing its key might sign.
    request.authority = false;
    const norva::service::PemPair made = norva::service::makeCertificate(request, error);
    if (made.certificate.empty())
        return false;
    std::ofstream(keyFile, std::ios::binary | std::ios::trunc) << made.key;
    std::ofstream(certificateFile, std::ios::binary | std::ios::trunc) << made.certificate;
    std::ofstream(namesFile, std::ios::binary | std::ios::trunc) << names;
    std::printf("made a new TLS certificate for %s\n", host.c_str());
    return true;
}

} // namespace

// The password of an --add-user value: from standard input after "NAME", from
// the first line of FILE after "NAME:@FILE", or as given after "NAME:" (with a
// warning: the process list shows it to every local user). False when there
// is none.
bool readPassword(const std::string& user, std::size_t colon, std::string& password)
{
    const auto firstLine = [&password](std::istream& in) {
        std::getline(in, password);
        if (!password.empty() && password.back() == '\r')
            password.pop_back();
        return !password.empty();
    };
    if (colon == std::string::npos) {
        std::fprintf(stderr, "password for %s: ", user.c_str());
        return firstLine(std::cin);
    }
    if (user.compare(colon + 1, 1, "@") == 0) {
        std::ifstream file(user.substr(colon + 2));
        return file && firstLine(file);
    }
    password = user.substr(colon + 1);
    std::fprintf(stderr, "norva-records-service: warning: the password of %s stands in the process list, where every "
                         "local user can read it; use --add-user %s (standard input) or %s:@FILE\n",
                 user.substr(0, colon).c_str(), user.substr(0, colon).c_str(), user.substr(0, colon).c_str());
    return true;
}

int main(int argc, char** argv)
{
    // What the service makes (database, boards, spooled bodies) is its user's
    // alone.
    ::umask(077);
    // Every open connection takes a descriptor; idle ones cost little else.
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    norva::service::ServiceOptions options;
    norva::service::FaultInjection faults;
    norva::service::HttpLimits limits;
    // Connections stay well under the descriptor limit: the database, spooled
    // form parts, stored files and TLS need theirs too.
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY)
        limits.openConnections = int(std::min<rlim_t>(rlim_t(limits.openConnections), files.rlim_cur > 128 ? files.rlim_cur - 96 : 32));
    std::string host = "127.0.0.1";
    int port = 8765;
    std::vector<std::string> newUsers;
    std::string certificateFile, keyFile;
    bool selfSigned = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
            return usage();
        if (arg == "--version") {
            std::printf("norva-records-service %s\n", NORVA_VERSION);
            return 0;
        }
        if (arg == "--expire-tokens") {
            options.expireTokens = true;
            continue;
        }
        if (arg == "--slow-hash-ms" && i + 1 < argc) {
            norva::service::slowPasswordHashesBy(std::atoi(argv[++i]));
            continue;
        }
        if (arg == "--tls-self-signed") {
            selfSigned = true;
            continue;
        }
        if (arg.empty() || arg[0] != '-') {
            options.dataFolder = arg;
            continue;
        }
        const bool hasValue = i + 1 < argc;
        const std::string value = hasValue ? argv[++i] : ""; // "" is no option's value
        // Takes a whole number from least to most into `set`.
        const auto number = [&value](long long least, long long most, const std::function<void(long long)>& set) {
            const std::optional<long long> n = wholeNumber(value, least, most);
            if (n)
                set(*n);
            return n.has_value();
        };
        bool understood = false;
        if (arg == "--listen")
            understood = readAddress(value, host, port);
        else if (arg == "--token-ttl")
            understood = number(0, 10LL * 366 * 86400, [&](long long n) { options.tokenLifetimeSeconds = n; });
        else if (arg == "--max-body-mb")
            understood = number(1, 1 << 20, [&](long long n) { limits.bodyBytes = std::uint64_t(n) << 20; });
        else if (arg == "--max-memory-mb")
            understood = number(1, 1 << 20, [&](long long n) { limits.memoryBodiesBytes = std::uint64_t(n) << 20; });
        else if (arg == "--idle-seconds")
            understood = number(1, 86400, [&](long long n) { limits.idle = std::chrono::seconds(n); });
        else if (arg == "--delay-ms")
            understood = number(0, 3600 * 1000, [&](long long n) { faults.setDelayMs(int(n)); });
        else if (arg == "--tls-cert")
            understood = !(certificateFile = value).empty();
        else if (arg == "--tls-key")
            understood = !(keyFile = value).empty();
        else if (arg == "--fail")
            understood = faults.addFailure(value);
        else if (arg == "--drop")
            understood = faults.addDrop(value);
        else if (arg == "--add-user") {
            // NAME, NAME:@FILE or NAME:PASSWORD; a password may hold colons.
            const std::size_t colon = value.find(':');
            understood = colon != 0 && (colon == std::string::npos || colon + 1 < value.size());
            if (understood)
                newUsers.push_back(value);
        } else
            return misuse("unknown option " + arg);
        if (!understood)
            return misuse(hasValue ? "cannot use " + arg + " " + value : arg + " needs a value");
    }

    if (certificateFile.empty() != keyFile.empty())
        return misuse("--tls-cert and --tls-key go together");
    if (selfSigned && !certificateFile.empty())
        return misuse("--tls-self-signed or --tls-cert and --tls-key, not both");

    norva::service::RecordsService service(options);
    std::string error;
    bool seeded = false;
    if (!service.open(error, seeded)) {
        std::fprintf(stderr, "norva-records-service: %s\n", error.c_str());
        return 1;
    }
    for (const std::string& user : newUsers) {
        const std::size_t colon = user.find(':');
        const std::string name = user.substr(0, colon);
        std::string password;
        if (!readPassword(user, colon, password))
            return misuse("no password for --add-user " + name);
        std::string taken;
        if (service.addUser(name, password, taken))
            std::printf("added user %s\n", name.c_str());
    }
    if (selfSigned && !selfSignedFiles(options.dataFolder, host, certificateFile, keyFile, error)) {
        std::fprintf(stderr, "norva-records-service: %s\n", error.c_str());
        return 1;
    }
    if (!certificateFile.empty()) {
        // A certificate out of its time stops the start: every client would refuse it.
        const norva::service::Validity validity = norva::service::validityOf(fileText(certificateFile));
        if (validity.read && (validity.secondsLeft <= 0 || validity.secondsToStart > 0)) {
            std::fprintf(stderr, "norva-records-service: the certificate %s is %s; serve with one that is valid now\n",
                         certificateFile.c_str(), validity.secondsLeft <= 0 ? "expired" : "not valid yet");
            return 1;
        }
    }
    if (!certificateFile.empty() && !(limits.tls = norva::service::loadTlsContext(certificateFile, keyFile, error))) {
        std::fprintf(stderr, "norva-records-service: %s\n", error.c_str());
        return 1;
    }
    // A TLS handshake must be over within the idle limit, and never takes
    // longer than 10 s: a connection that starts none holds nothing for long.
    limits.handshake = std::min(limits.handshake, limits.idle);
    limits.headDeadline = std::min(limits.headDeadline, limits.idle);
    limits.spoolFolder = service.spoolFolder();
    limits.checkHead = [&service](const norva::service::HttpRequest& head) { return service.checkHead(head); };
    norva::service::HttpServer server(limits);
    if (!server.listen(host, port, error)) {
        std::fprintf(stderr, "norva-records-service: %s\n", error.c_str());
        return 1;
    }
    std::printf("data folder: %s\n", options.dataFolder.c_str());
    if (seeded)
        std::printf("created user %s with password %s\n", norva::service::RecordsService::seededUser,
                    norva::service::RecordsService::seededPassword);
    // Judged by the address bound, not by the name given: "0.0.0.0", a host
    // name or a card's address all reach beyond this machine.
    if (!server.loopbackOnly() && !limits.tls)
        std::fprintf(stderr, "norva-records-service: warning: serving on %s, beyond this machine; requests, "
                             "passwords and tokens go over the network in clear text (serve HTTPS with "
                             "--tls-cert FILE --tls-key FILE, or --tls-self-signed)\n", server.address().c_str());
    if (limits.tls)
        std::printf("TLS certificate: %s (SHA-256 %s)\n", certificateFile.c_str(),
                    norva::service::sha256Fingerprint(fileText(certificateFile)).c_str());
    if (selfSigned)
        std::printf("clients trust it with: norva --cacert %s\n", certificateFile.c_str());
    // As a client writes its ipconfig: "https://" for TLS.
    std::printf("listening on %s%s\n", limits.tls ? "https://" : "", server.address().c_str());
    std::fflush(stdout);

    server.stopOnSignals();
    const norva::service::HttpHandler handler = [&service, &faults](const norva::service::HttpRequest& request) {
        if (std::optional<norva::service::HttpResponse> fault = faults.intercept(request))
            return *fault;
        return service.handle(request);
    };
    server.serve(handler);
    std::printf("stopped\n");
    return 0;
}
