// SPDX-License-Identifier: MIT
// A large file through the library into norva-records-service and back: the
// bytes must come back equal, and the service's peak resident memory shows
// that it streams (file parts written to disk as they come, downloads read
// from disk). Meanwhile
// another client's slowest answer shows whether storing the file holds up
// everybody else (and during logins, and a batch of 50,000 shares). Then
// 5,000 connections each send half a request head and stay: a logged-in
// client's queries (its favourites, none) meanwhile, and the service's memory,
// show what such connections cost. Last, 64 clients send a 15 MiB JSON batch
// each at once: how many are taken, and the service's memory during and after.
// With --siege, the floods and trials of a hostile client instead (siege()).
//
//   bench_service_round_trip SERVICE [MiB (default 2048)]
//   bench_service_round_trip SERVICE --siege
#include "norva_api_qt.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace NORVA::NORVA_API_QT;

namespace {

using Clock = std::chrono::steady_clock;

QJsonObject call(std::string (*operation)(std::string), const QJsonObject& argument)
{
    // The library echoes each result on standard output; the figures go to stderr.
    std::fflush(stdout);
    const int saved = ::dup(1);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::close(null);
    const std::string result = operation(QJsonDocument(argument).toJson(QJsonDocument::Compact).toStdString());
    std::fflush(stdout);
    ::dup2(saved, 1);
    ::close(saved);
    return QJsonDocument::fromJson(QByteArray::fromStdString(result)).object();
}

bool writeSource(const std::string& path, std::uint64_t bytes)
{
    std::ofstream out(path, std::ios::binary);
    std::vector<std::uint64_t> block((1 << 20) / 8);
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    for (std::uint64_t written = 0; written < bytes; written += 1 << 20) {
        for (std::uint64_t& word : block) { // xorshift: cheap bytes that don't compress
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            word = state;
        }
        out.write(reinterpret_cast<const char*>(block.data()), std::streamsize(std::min<std::uint64_t>(bytes - written, 1 << 20)));
    }
    return bool(out.flush());
}

bool sameBytes(const std::string& a, const std::string& b)
{
    std::ifstream left(a, std::ios::binary), right(b, std::ios::binary);
    std::vector<char> x(1 << 20), y(1 << 20);
    while (left && right) {
        left.read(x.data(), std::streamsize(x.size()));
        right.read(y.data(), std::streamsize(y.size()));
        if (left.gcount() != right.gcount() || std::memcmp(x.data(), y.data(), std::size_t(left.gcount())) != 0)
            return false;
    }
    return left.eof() && right.eof();
}

// A login of the service's first user.
QJsonObject logIn(const QString& address)
{
    return call(norva_sdk_login, {{"ipconfig", address}, {"username", "norva"}, {"password", "norva"}});
}

// Another client, in a process of its own: in each window ("g" on the control
// pipe until "s") it asks for its favourites again and again, then reports how
// many answers it had and the slowest one (its favourites: a list that stays
// short whatever the others add). It ends when the pipe closes.
struct Prober {
    pid_t pid = -1;
    int control = -1;
    int report = -1;
};

struct ProbeWindow {
    long answers = 0;
    double slowestMs = 0;
};

Prober startProber(const QString& address)
{
    int control[2], report[2];
    if (::pipe(control) != 0 || ::pipe(report) != 0)
        return {};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(control[1]);
        ::close(report[0]);
        const QJsonObject login = logIn(address);
        const QJsonObject argument{{"ipconfig", address}, {"token", login["data"].toObject()["token"]}};
        char command;
        while (::read(control[0], &command, 1) == 1 && command == 'g') {
            ProbeWindow window;
            pollfd stop{control[0], POLLIN, 0};
            while (::poll(&stop, 1, 0) == 0) {
                const auto start = Clock::now();
                call(norva_sdk_select_favorite, argument);
                window.slowestMs = std::max(window.slowestMs, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
                ++window.answers;
            }
            if (::read(control[0], &command, 1) != 1 || ::write(report[1], &window, sizeof window) != sizeof window)
                _exit(1);
        }
        _exit(0);
    }
    ::close(control[0]);
    ::close(report[1]);
    return {pid, control[1], report[0]};
}

// What the prober saw while `work` ran.
template <typename Work>
ProbeWindow probeDuring(const Prober& prober, Work&& work)
{
    ProbeWindow window;
    const bool started = ::write(prober.control, "g", 1) == 1;
    work();
    if (!started || ::write(prober.control, "s", 1) != 1 || ::read(prober.report, &window, sizeof window) != sizeof window)
        std::fprintf(stderr, "the other client reported nothing\n");
    return window;
}

// The first record a TLS client of this Qt sends: its hello, as a client that
// then says nothing more would leave it.
std::string aClientHello()
{
    QTcpServer listener;
    listener.listen(QHostAddress::LocalHost);
    QSslSocket client;
    client.connectToHostEncrypted("127.0.0.1", listener.serverPort());
    client.waitForConnected(3000);
    client.flush();
    if (!listener.waitForNewConnection(3000))
        return {};
    const std::unique_ptr<QTcpSocket> server(listener.nextPendingConnection());
    QByteArray hello;
    while (server->waitForReadyRead(3000)) {
        hello += server->readAll();
        if (hello.size() >= 5 && hello.size() >= 5 + (int(quint8(hello[3])) << 8 | quint8(hello[4])))
            break;
    }
    return hello.toStdString();
}

// A figure of /proc/PID/status in KiB: "VmHWM:" (peak resident), "VmRSS:".
long statusKiB(pid_t pid, const char* field)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0)
            return std::atol(line.c_str() + std::strlen(field));
    }
    return -1;
}

// `count` connections to `port` that each send `half` (by default half a
// request head) and stay open (closed by the caller); fewer when the system
// refuses more.
std::vector<int> halfHeads(int port, int count,
                           std::string_view half = "POST /kvr/share/selectShare HTTP/1.1\r\nHost: bench\r\nContent-Type: appl")
{
    std::vector<int> sockets;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(std::uint16_t(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < count; ++i) {
        const int s = ::socket(AF_INET, SOCK_STREAM, 0);
        if (s < 0 || ::connect(s, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0
            || ::send(s, half.data(), half.size(), MSG_NOSIGNAL) != ssize_t(half.size())) {
            if (s >= 0)
                ::close(s);
            break;
        }
        sockets.push_back(s);
    }
    return sockets;
}

// `count` clients that each send one JSON batch of `bytes` at the same time,
// the way a client with no token checks its body size would; the answers' HTTP
// status codes, counted, and the service's resident memory, the most seen
// while they ran and a second after.
struct LargeBodies {
    std::map<std::string, int> statuses;
    long peakKiB = 0;
    long afterKiB = 0;
};

LargeBodies largeJsonBodies(pid_t service, int port, const QString& token, int count, std::size_t bytes)
{
    std::string body = "[";
    const std::string row = R"({"userId":1,"brdId":1,"acsTypeId":1,"acsType":1},)";
    while (body.size() + row.size() < bytes)
        body += row;
    body.back() = ']';
    const std::string head = "POST /kvr/share/insertMultipleShare HTTP/1.1\r\nHost: bench\r\nContent-Type: application/json\r\n"
                             "Connection: close\r\ntoken: " + token.toStdString() + "\r\nContent-Length: "
                             + std::to_string(body.size()) + "\r\n\r\n";
    LargeBodies seen;
    std::mutex mutex;
    std::atomic<bool> done{false};
    std::thread watch([&] {
        while (!done) {
            seen.peakKiB = std::max(seen.peakKiB, statusKiB(service, "VmRSS:"));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    std::vector<std::thread> clients;
    for (int i = 0; i < count; ++i) {
        clients.emplace_back([&] {
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(std::uint16_t(port));
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const int s = ::socket(AF_INET, SOCK_STREAM, 0);
            std::string answer;
            if (s >= 0 && ::connect(s, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) {
                const std::string request = head + body;
                for (std::size_t at = 0; at < request.size();) {
                    const ssize_t sent = ::send(s, request.data() + at, request.size() - at, MSG_NOSIGNAL);
                    if (sent <= 0)
                        break; // answered (503) before the body was all sent
                    at += std::size_t(sent);
                }
                char chunk[4096];
                ssize_t n;
                while ((n = ::recv(s, chunk, sizeof chunk, 0)) > 0)
                    answer.append(chunk, std::size_t(n));
            }
            if (s >= 0)
                ::close(s);
            const std::lock_guard<std::mutex> lock(mutex);
            ++seen.statuses[answer.size() >= 12 ? answer.substr(9, 3) : "none"];
        });
    }
    for (std::thread& client : clients)
        client.join();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    done = true;
    watch.join();
    seen.afterKiB = statusKiB(service, "VmRSS:");
    return seen;
}

// A running service of its own for the siege rows: started with `extra`
// options and, when `descriptors` is set, under that limit of open files.
struct Service {
    pid_t pid = -1;
    QString address;   // host:port, without a scheme
    QString trustFile; // the certificate to trust, for a service with --tls-self-signed
};

Service startService(const char* program, const std::string& data, rlim_t descriptors = 0,
                     const std::vector<std::string>& extra = {})
{
    int output[2];
    if (::pipe(output) != 0)
        return {};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(output[1], 1);
        if (descriptors) {
            const rlimit limit{descriptors, descriptors};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        std::vector<const char*> arguments{program, "--listen", "127.0.0.1:0"};
        for (const std::string& option : extra)
            arguments.push_back(option.c_str());
        arguments.push_back(data.c_str());
        arguments.push_back(nullptr);
        ::execv(program, const_cast<char* const*>(arguments.data()));
        _exit(127);
    }
    ::close(output[1]);
    std::string printed;
    char chunk[512];
    ssize_t n;
    while (printed.find('\n', printed.find("listening on ")) == std::string::npos
           && (n = ::read(output[0], chunk, sizeof chunk)) > 0)
        printed.append(chunk, std::size_t(n));
    ::close(output[0]);
    const std::size_t at = printed.find("listening on ");
    if (at == std::string::npos)
        return {pid, QString(), QString()};
    const std::size_t trust = printed.find("--cacert ");
    return {pid, QString::fromStdString(printed.substr(at + 13, printed.find('\n', at) - at - 13)).remove("https://"),
            trust == std::string::npos ? QString()
                                       : QString::fromStdString(printed.substr(trust + 9, printed.find('\n', trust) - trust - 9))};
}

void stopService(const Service& service, int signal = SIGTERM)
{
    ::kill(service.pid, signal);
    ::waitpid(service.pid, nullptr, 0);
}

// A connection to `port` that has sent `bytes`; -1 when refused.
int sendOn(int port, const std::string& bytes, int receiveBuffer = 0)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(std::uint16_t(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0)
        return -1;
    if (receiveBuffer)
        ::setsockopt(s, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    if (::connect(s, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0
        || ::send(s, bytes.data(), bytes.size(), MSG_NOSIGNAL) != ssize_t(bytes.size())) {
        ::close(s);
        return -1;
    }
    return s;
}

// Everything the peer sends until it closes (or `limitMs` of silence).
std::string drain(int s, int limitMs = 30000)
{
    std::string answer;
    char chunk[16 << 10];
    pollfd readable{s, POLLIN, 0};
    while (::poll(&readable, 1, limitMs) > 0) {
        const ssize_t n = ::recv(s, chunk, sizeof chunk, 0);
        if (n <= 0)
            break;
        answer.append(chunk, std::size_t(n));
    }
    ::close(s);
    return answer;
}

std::string statusOf(const std::string& answer)
{
    return answer.size() >= 12 ? answer.substr(9, 3) : "none";
}

std::string counted(const std::map<std::string, int>& statuses)
{
    std::string text;
    for (const auto& [status, times] : statuses)
        text += (text.empty() ? "" : ", ") + std::to_string(times) + " x " + status;
    return text;
}

double millisSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The floods and trials a hostile or unlucky client puts the service
// through, each with another client's slowest query meanwhile (the prober)
// and the service's resident memory. One line each, on standard output.
int siege(const char* program)
{
    char scratchName[] = "/tmp/norva-siege-XXXXXX";
    const std::string scratch = ::mkdtemp(scratchName);
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    // The library's echo goes to /dev/null for the whole run (calls from two
    // threads at once would race over redirecting it); the figures go to `out`.
    std::fflush(stdout);
    FILE* const out = ::fdopen(::dup(1), "w");
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::close(null);

    const Service service = startService(program, scratch + "/data");
    if (service.address.isEmpty())
        return 1;
    const int port = service.address.section(':', 1).toInt();
    const Prober prober = startProber(service.address);
    // Forked before it: calls from two threads at once go through this
    // host's application, as a host's would.
    int appArgc = 1;
    char appName[] = "bench_service_round_trip";
    char* appArgv[] = {appName, nullptr};
    const QCoreApplication application(appArgc, appArgv);
    const QJsonObject login = logIn(service.address);
    const QString token = login["data"].toObject()["token"].toString();
    const int userId = login["data"].toObject()["userId"].toInt();
    const std::string board = scratch + "/board.bin";
    writeSource(board, 64 << 20);
    const QJsonObject uploaded = call(norva_sdk_upload_file, {{"ipconfig", service.address}, {"token", token},
                                                              {"file_uploadpath", QString::fromStdString(board)},
                                                              {"data", QJsonObject{{"fileInfo", QJsonObject{{"createuserid", userId}}}}}});
    const auto row = [&](const char* what, const ProbeWindow& window, const std::string& more) {
        std::fprintf(out, "%s: another client %ld answers, the slowest in %.0f ms; service resident %.1f MiB%s\n", what,
                    window.answers, window.slowestMs, double(statusKiB(service.pid, "VmRSS:")) / 1024, more.c_str());
        std::fflush(out);
    };

    // Slow bodies: a login head that promises 16,000 bytes, then a byte a second.
    {
        std::vector<int> slow;
        const std::string head = "POST /kvr/authority/login HTTP/1.1\r\nHost: b\r\nContent-Type: application/json\r\n"
                                 "Content-Length: 16000\r\n\r\n{";
        const ProbeWindow window = probeDuring(prober, [&] {
            for (int i = 0; i < 300; ++i)
                slow.push_back(sendOn(port, head));
            for (int second = 0; second < 10; ++second) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
                for (const int s : slow)
                    ::send(s, " ", 1, MSG_NOSIGNAL);
            }
        });
        for (const int s : slow)
            ::close(s);
        row("300 slow bodies for 10 s", window, "");
    }
    // Slow readers: downloads of the 64 MiB board into tiny receive buffers, never read.
    {
        std::vector<int> slow;
        const std::string form = "id=" + std::to_string(uploaded["Board_Id"].toInt()) + "&userId=" + std::to_string(userId);
        const std::string request = "POST /kvr/originalFile/downloadFile HTTP/1.1\r\nHost: b\r\ntoken: " + token.toStdString()
                                    + "\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: "
                                    + std::to_string(form.size()) + "\r\n\r\n" + form;
        const ProbeWindow window = probeDuring(prober, [&] {
            for (int i = 0; i < 300; ++i)
                slow.push_back(sendOn(port, request, 4096));
            std::this_thread::sleep_for(std::chrono::seconds(10));
        });
        for (const int s : slow)
            ::close(s);
        row("300 slow readers of a 64 MiB download for 10 s", window, "");
    }
    // Logins at once, each on a connection of its own: 1,000 right ones, then
    // 300 wrong ones for one name (each waits out the name's slow-down, and
    // nobody else should).
    const auto loginsAtOnce = [&](const char* what, int count, const std::string& body) {
        const std::string request = "POST /kvr/authority/login HTTP/1.1\r\nHost: b\r\nContent-Type: application/json\r\n"
                                    "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        std::map<std::string, int> statuses;
        const ProbeWindow window = probeDuring(prober, [&] {
            std::vector<int> logins;
            for (int i = 0; i < count; ++i)
                logins.push_back(sendOn(port, request));
            for (const int s : logins)
                ++statuses[s < 0 ? "refused" : statusOf(drain(s))];
        });
        row(what, window, "; answered " + counted(statuses));
    };
    loginsAtOnce("1,000 logins at once", 1000, R"({"userName":"norva","userPwd":"norva"})");
    loginsAtOnce("300 wrong logins for one name at once", 300, R"({"userName":"norva","userPwd":"wrong"})");
    // 20,000 failed logins under distinct 15 KB names.
    {
        const long before = statusKiB(service.pid, "VmRSS:");
        const std::string padding(15000, 'n');
        std::map<std::string, int> statuses;
        const ProbeWindow window = probeDuring(prober, [&] {
            std::vector<std::thread> senders;
            std::mutex mutex;
            for (int t = 0; t < 8; ++t) {
                senders.emplace_back([&, t] {
                    for (int i = t; i < 20000; i += 8) {
                        const std::string body = R"({"userName":")" + padding + std::to_string(i) + R"(","userPwd":"x"})";
                        const int s = sendOn(port, "POST /kvr/authority/login HTTP/1.1\r\nHost: b\r\nContent-Type: application/json\r\n"
                                                   "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
                        const std::string status = s < 0 ? "refused" : statusOf(drain(s));
                        const std::lock_guard<std::mutex> lock(mutex);
                        ++statuses[status];
                    }
                });
            }
            for (std::thread& sender : senders)
                sender.join();
        });
        row("20,000 failed logins, distinct 15 KB names", window,
            "; " + std::to_string(before / 1024) + " MiB before; answered " + counted(statuses));
    }
    // A chunk extension, then a trailer, of 128 MiB, three connections each.
    for (const bool trailer : {false, true}) {
        std::map<std::string, int> statuses;
        long peak = 0;
        const ProbeWindow window = probeDuring(prober, [&] {
            std::vector<std::thread> senders;
            std::mutex mutex;
            for (int i = 0; i < 3; ++i) {
                senders.emplace_back([&] {
                    const int s = sendOn(port, std::string("POST /kvr/authority/login HTTP/1.1\r\nHost: b\r\nContent-Type: application/json\r\n"
                                                           "Transfer-Encoding: chunked\r\n\r\n")
                                                   + (trailer ? "2\r\n{}\r\n0\r\nX-Pad: " : "2;x="));
                    const std::string piece(1 << 20, 'p');
                    for (int mib = 0; s >= 0 && mib < 128; ++mib) {
                        if (::send(s, piece.data(), piece.size(), MSG_NOSIGNAL) <= 0)
                            break;
                    }
                    const std::string status = s < 0 ? "refused" : statusOf(drain(s, 5000));
                    const std::lock_guard<std::mutex> lock(mutex);
                    ++statuses[status];
                    peak = std::max(peak, statusKiB(service.pid, "VmRSS:"));
                });
            }
            for (std::thread& sender : senders)
                sender.join();
        });
        row(trailer ? "3 trailers of 128 MiB" : "3 chunk extensions of 128 MiB", window,
            "; at most " + std::to_string(peak / 1024) + " MiB while they came; answered " + counted(statuses));
    }
    // Connections that each hold half a head: what they cost while held, and
    // what is left a second after they closed.
    {
        long before = statusKiB(service.pid, "VmRSS:"), with = 0;
        std::size_t count = 0;
        const ProbeWindow window = probeDuring(prober, [&] {
            const std::vector<int> held = halfHeads(port, 5000);
            count = held.size();
            std::this_thread::sleep_for(std::chrono::seconds(1));
            with = statusKiB(service.pid, "VmRSS:");
            for (const int s : held)
                ::close(s);
        });
        std::this_thread::sleep_for(std::chrono::seconds(1));
        row((std::to_string(count) + " connections holding half a head, then closed").c_str(), window,
            " a second after; " + std::to_string(before / 1024) + " MiB before, " + std::to_string(with / 1024) + " MiB with them");
    }
    ::close(prober.control);
    ::waitpid(prober.pid, nullptr, 0);

    // A 100 MiB upload with a wrong token, through the library: the service
    // answers from the head, and the answer must reach a client still sending.
    {
        const std::string large = scratch + "/large.bin";
        writeSource(large, 100 << 20);
        const auto start = Clock::now();
        const QJsonObject refused = call(norva_sdk_upload_file, {{"ipconfig", service.address}, {"token", "no-such-token"},
                                                                 {"file_uploadpath", QString::fromStdString(large)}});
        std::fprintf(out, "a 100 MiB upload with a wrong token: %s in %.0f ms\n",
                    QJsonDocument(refused).toJson(QJsonDocument::Compact).constData(), millisSince(start));
        ::unlink(large.c_str());
    }

    // A login with the old password racing a password change: does its token
    // outlive the change? 100 trials.
    {
        const QString changer = token;
        QString password = "norva";
        int survivors = 0;
        for (int trial = 0; trial < 100; ++trial) {
            const QString next = QStringLiteral("race-%1").arg(trial);
            QString raced;
            std::thread racing([&] {
                raced = call(norva_sdk_login, {{"ipconfig", service.address}, {"username", "norva"}, {"password", password}})["data"]
                            .toObject()["token"].toString();
            });
            call(norva_sdk_update_password,
                 {{"ipconfig", service.address}, {"token", changer}, {"userid", userId}, {"new_pwd", next}});
            racing.join();
            survivors += !raced.isEmpty()
                         && call(norva_sdk_select_favorite, {{"ipconfig", service.address}, {"token", raced}})["status"].toInt() == 200;
            password = next;
        }
        std::fprintf(out, "password change raced by a login with the old password, 100 trials: %d old tokens alive after\n", survivors);
        call(norva_sdk_update_password, {{"ipconfig", service.address}, {"token", changer}, {"userid", userId}, {"new_pwd", "norva"}});
    }
    stopService(service);

    // Past the descriptors: 340 half heads under a limit of 256, all closed,
    // then a query.
    {
        const Service limited = startService(program, scratch + "/limited", 256);
        const int port = limited.address.section(':', 1).toInt();
        const std::vector<int> held = halfHeads(port, 340);
        for (const int s : held)
            ::close(s);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const QString token = logIn(limited.address)["data"].toObject()["token"].toString();
        const auto start = Clock::now();
        const int status = call(norva_sdk_select_favorite, {{"ipconfig", limited.address}, {"token", token}})["status"].toInt();
        std::fprintf(out, "340 connections past a limit of 256 descriptors, closed: then a query answered %d in %.0f ms\n", status,
                    millisSince(start));
        stopService(limited);
    }

    // The same over TLS: 5,000 connections that send nothing, that hold half
    // of a client's hello (a record head that promises 512 bytes, and 26 of
    // them), or a whole one and then nothing; meanwhile 20 TLS logins and
    // queries of a client that trusts the service.
    {
        const Service tls = startService(program, scratch + "/tls", 0, {"--tls-self-signed"});
        QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
        trusting.addCaCertificates(tls.trustFile);
        QSslConfiguration::setDefaultConfiguration(trusting);
        const std::string halfHello = std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + std::string(15, '\0');
        const std::pair<const char*, std::string> holders[] = {
            {"sending nothing", std::string()}, {"holding half a hello", halfHello}, {"holding a whole hello", aClientHello()}};
        const QString address = "https://" + tls.address;
        for (const auto& [what, sent] : holders) {
            const long before = statusKiB(tls.pid, "VmRSS:");
            const std::vector<int> held = halfHeads(tls.address.section(':', 1).toInt(), 5000, sent);
            std::this_thread::sleep_for(std::chrono::seconds(1));
            int answered = 0;
            double slowest = 0;
            for (int i = 0; i < 20; ++i) {
                const auto start = Clock::now();
                const QString tlsToken = logIn(address)["data"].toObject()["token"].toString();
                answered += call(norva_sdk_select_favorite, {{"ipconfig", address}, {"token", tlsToken}})["status"].toInt() == 200;
                slowest = std::max(slowest, millisSince(start));
            }
            const long with = statusKiB(tls.pid, "VmRSS:");
            for (const int s : held)
                ::close(s);
            std::this_thread::sleep_for(std::chrono::seconds(1));
            std::fprintf(out, "%zu TLS connections %s, then closed: %d of 20 TLS logins and queries answered 200, the slowest in "
                              "%.0f ms; service resident %.1f MiB a second after; %ld MiB before, %ld MiB with them\n",
                        held.size(), what, answered, slowest, double(statusKiB(tls.pid, "VmRSS:")) / 1024, before / 1024,
                        with / 1024);
        }
        stopService(tls);
    }

    // kill -9 during a password change, 100 trials: afterwards either the new
    // password works and no token of the old one does, or the old one still
    // works (nothing half done, nothing lost).
    {
        QString password = "norva";
        int halfDone = 0, lost = 0;
        for (int trial = 0; trial < 100; ++trial) {
            const Service killed = startService(program, scratch + "/data");
            const auto tokenOf = [&killed](const QString& pw) {
                return call(norva_sdk_login, {{"ipconfig", killed.address}, {"username", "norva"}, {"password", pw}})["data"]
                    .toObject()["token"].toString();
            };
            const QString mine = tokenOf(password), other = tokenOf(password);
            const QString next = QStringLiteral("killed-%1").arg(trial);
            std::thread change([&] {
                call(norva_sdk_update_password, {{"ipconfig", killed.address}, {"token", mine}, {"userid", userId}, {"new_pwd", next}});
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(trial % 40));
            stopService(killed, SIGKILL);
            change.join();
            const Service restarted = startService(program, scratch + "/data");
            const auto alive = [&restarted](const QString& t) {
                return call(norva_sdk_select_favorite, {{"ipconfig", restarted.address}, {"token", t}})["status"].toInt() == 200;
            };
            const bool changed = !call(norva_sdk_login, {{"ipconfig", restarted.address}, {"username", "norva"}, {"password", next}})["data"]
                                      .toObject()["token"].toString().isEmpty();
            if (changed) {
                halfDone += alive(other);
                password = next;
            } else {
                lost += !alive(other);
            }
            stopService(restarted);
        }
        std::fprintf(out, "kill -9 during a password change, 100 trials: %d with an old token alive, %d with the old login lost\n",
                    halfDone, lost);
    }
    std::fclose(out);
    std::system(("rm -rf '" + scratch + "'").c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[2], "--siege") == 0)
        return siege(argv[1]);
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_service_round_trip SERVICE [MiB | --siege]\n");
        return 2;
    }
    const std::uint64_t mib = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 2048;
    char scratchName[] = "/tmp/norva-round-trip-XXXXXX";
    const std::string scratch = ::mkdtemp(scratchName);
    const std::string source = scratch + "/board.bin";
    if (!writeSource(source, mib << 20))
        return 1;

    const Service started = startService(argv[1], scratch + "/data");
    if (started.address.isEmpty()) {
        std::fprintf(stderr, "the service did not start\n");
        return 1;
    }
    const pid_t service = started.pid;
    const QString address = started.address;

    // Forked before this process starts any of Qt's threads.
    const Prober prober = startProber(address);
    const QJsonObject login = logIn(address);
    const QString token = login["data"].toObject()["token"].toString();
    const int userId = login["data"].toObject()["userId"].toInt();

    const auto upStart = Clock::now();
    QJsonObject uploaded;
    const ProbeWindow duringUpload = probeDuring(prober, [&] {
        uploaded = call(norva_sdk_upload_file, {{"ipconfig", address}, {"token", token}, {"file_uploadpath", QString::fromStdString(source)},
                                                {"data", QJsonObject{{"fileInfo", QJsonObject{{"createuserid", userId}}}}}});
    });
    const double upSeconds = std::chrono::duration<double>(Clock::now() - upStart).count();
    // A login verifies an Argon2id hash (~50 ms of work): meanwhile the others go on.
    const int logins = 20;
    const ProbeWindow duringLogins = probeDuring(prober, [&] {
        for (int i = 0; i < logins; ++i)
            logIn(address);
    });
    // 50,000 shares in one batch: one transaction, while the other client asks on.
    const int shares = 50000;
    QJsonArray batch;
    for (int i = 0; i < shares; ++i)
        batch.append(QJsonObject{{"userid", userId}, {"boardid", uploaded["Board_Id"]}, {"sharewith_id", 100000 + i}, {"sharetype", 1}});
    QJsonObject batchResult;
    const auto batchStart = Clock::now();
    const ProbeWindow duringBatch = probeDuring(prober, [&] {
        batchResult = call(norva_sdk_add2share_batch, {{"ipconfig", address}, {"token", token}, {"data", batch}});
    });
    const double batchSeconds = std::chrono::duration<double>(Clock::now() - batchStart).count();
    ::close(prober.control);
    ::waitpid(prober.pid, nullptr, 0);
    const std::string into = scratch + "/down";
    ::mkdir(into.c_str(), 0700);
    const auto downStart = Clock::now();
    const QJsonObject fetched = call(norva_sdk_download_binary_file,
                                     {{"ipconfig", address}, {"token", token}, {"file_downloadpath", QString::fromStdString(into)},
                                      {"data", QJsonObject{{"id", uploaded["Board_Id"]}, {"userId", userId}}}});
    const double downSeconds = std::chrono::duration<double>(Clock::now() - downStart).count();
    const long servicePeak = statusKiB(service, "VmHWM:");

    const int jsonClients = 64;
    const LargeBodies large = largeJsonBodies(service, address.section(':', 1).toInt(), token, jsonClients, 15 << 20);
    std::string statuses;
    for (const auto& [status, times] : large.statuses)
        statuses += (statuses.empty() ? "" : ", ") + std::to_string(times) + " x " + status;
    ::kill(service, SIGTERM);
    ::waitpid(service, nullptr, 0);

    const bool equal = fetched["status"].toInt() == 200 && sameBytes(source, into + "/board.bin");
    rusage self{};
    ::getrusage(RUSAGE_SELF, &self);
    const double megabytes = double(mib << 20) / 1e6;
    std::printf("service round trip of %llu MiB: upload %s (%.0f MB/s), download %s (%.0f MB/s), equal bytes: %s,\n"
                "  service peak resident %.1f MiB, client peak resident %.1f MiB,\n"
                "  another client during the upload: %ld answers, the slowest in %.0f ms,\n"
                "  another client during %d logins: %ld answers, the slowest in %.0f ms,\n"
                "  %d shares in one batch: %s in %.2f s; another client meanwhile: %ld answers, the slowest in %.0f ms,\n"
                "  %d clients sending a 15 MiB JSON batch at once: answered %s; service resident at most %.1f MiB,\n"
                "  %.1f MiB a second after\n",
                static_cast<unsigned long long>(mib), uploaded["message"].toString().toUtf8().constData(), megabytes / upSeconds,
                fetched["message"].toString().toUtf8().constData(), megabytes / downSeconds, equal ? "yes" : "NO",
                double(servicePeak) / 1024, double(self.ru_maxrss) / 1024, duringUpload.answers,
                duringUpload.slowestMs, logins, duringLogins.answers, duringLogins.slowestMs, shares,
                batchResult["message"].toString().toUtf8().constData(), batchSeconds, duringBatch.answers,
                duringBatch.slowestMs, jsonClients,
                statuses.c_str(), double(large.peakKiB) / 1024, double(large.afterKiB) / 1024);
    std::system(("rm -rf '" + scratch + "'").c_str());
    return equal ? 0 : 1;
}
