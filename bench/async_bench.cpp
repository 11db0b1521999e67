// SPDX-License-Identifier: MIT
// The asynchronous face beside bare Qt with one reused manager and libcurl's
// multi interface, against a loopback sink; and the peak resident memory of
// downloads through either face.
//
//   bench_async [--quick]
//   bench_async --in-flight N    the calls with N in flight alone
//   bench_async --servers [--quick]  the rows against servers of each manner alone
//
// The calls run in blocks, each block of the library paired with one of bare
// Qt right beside it, the two taking turns at going first: the share is the
// median of the pairs' shares, so that the machine's slow spells, which last
// longer than a pair, fall on both sides of it alike. The calls per second
// are medians of the blocks. Downloads run in child processes, each with its
// own peak resident memory (ru_maxrss).
#include "call_runs.h"
#include "child_run.h"
#include "loopback_sink.h"

#include "norva_api_qt.h"
#include "norva_api_qt_async.h"

#include <QCoreApplication>
#include <QEventLoop>

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using bench::ChildRun;
using bench::median;
using bench::runChild;
using Clock = std::chrono::steady_clock;

// libcurl's multi interface: `inFlight` easy handles, each reused (and its
// connection kept) for call after call, sending what the library sends for
// `kind`.
double curlMultiMicrosPerCall(const std::string& address, int calls, int inFlight,
                              bench::Kind kind = bench::Kind::PostQuery, const std::string& uploadPath = {})
{
    const std::string path = kind == bench::Kind::PostQuery  ? "/kvr/share/selectShare"
                             : kind == bench::Kind::GetQuery ? "/tavlin/tavlinModel/selectAllModel"
                                                             : "/kvr/originalFile/uploadFile";
    const std::string url = "http://" + address + path;
    const char* body = R"({"brdName":"top","currentUserId":0,"endTime":null,"startTime":null,"userId":1})";
    curl_slist* headers = nullptr;
    if (kind != bench::Kind::SmallUpload) // a form's type is curl's to set
        headers = curl_slist_append(headers, kind == bench::Kind::GetQuery ? "Content-Type: application/x-www-form-urlencoded"
                                                                           : "Content-Type: application/json");
    headers = curl_slist_append(headers, "token: bench-token");
    std::vector<curl_mime*> forms;
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, long(inFlight));
    const auto discard = +[](char*, size_t size, size_t count, void*) { return size * count; };
    std::vector<CURL*> handles;
    int started = 0;
    const auto start = [&](CURL* handle) {
        ++started;
        curl_multi_add_handle(multi, handle);
    };
    for (int i = 0; i < std::min(calls, inFlight); ++i) {
        CURL* handle = curl_easy_init();
        curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
        if (kind == bench::Kind::PostQuery) {
            curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body);
        } else if (kind == bench::Kind::SmallUpload) {
            curl_mime* const form = curl_mime_init(handle);
            curl_mimepart* part = curl_mime_addpart(form);
            curl_mime_name(part, "file");
            curl_mime_filedata(part, uploadPath.c_str());
            part = curl_mime_addpart(form);
            curl_mime_name(part, "data");
            curl_mime_data(part, "{}", CURL_ZERO_TERMINATED);
            curl_easy_setopt(handle, CURLOPT_MIMEPOST, form);
            forms.push_back(form);
        }
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discard);
        handles.push_back(handle);
    }
    const auto begin = Clock::now();
    for (CURL* handle : handles)
        start(handle);
    int finished = 0;
    while (finished < calls) {
        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            ++finished;
            CURL* const handle = message->easy_handle;
            curl_multi_remove_handle(multi, handle);
            if (started < calls)
                start(handle);
        }
        if (finished < calls)
            curl_multi_poll(multi, nullptr, 0, 100, nullptr);
    }
    const double micros = std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / calls;
    for (CURL* handle : handles)
        curl_easy_cleanup(handle);
    for (curl_mime* form : forms)
        curl_mime_free(form);
    curl_multi_cleanup(multi);
    curl_slist_free_all(headers);
    return micros;
}

// Standard output goes to /dev/null while it lives: the library's console
// echo costs its write, and the table stays readable.
class QuietStdout
{
public:
    QuietStdout()
    {
        std::fflush(stdout);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::close(null);
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        ::dup2(console, 1);
        ::close(console);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    const int console = ::dup(1);
};

// Each operation kind against servers of each manner: the asynchronous face
// one call at a time and 6 in flight, beside the blocking function and
// libcurl's multi interface. Medians of `repeats` runs.
void perServerRows(int calls, int repeats, const std::string& uploadPath)
{
    struct Server {
        bench::Manner manner;
        const char* name;
    };
    const Server servers[] = {
        {bench::Manner::AcknowledgesAtOnce, "ACKs at once (as the local service)"},
        {bench::Manner::OneWrite, "NODELAY, one write per reply"},
        {bench::Manner::HeadThenBody, "head and body apart, Nagle on"},
    };
    std::printf("\n| %-36s | %-22s | %-9s | %-9s | %-9s | %-9s | %-9s | %-11s |\n", "server (us per call)", "operation",
                "async 1", "blocking", "async 6", "curl 1", "curl 6", "async6/curl6");
    std::printf("|%s|%s|%s|%s|%s|%s|%s|%s|\n", std::string(38, '-').c_str(), std::string(24, '-').c_str(),
                std::string(11, '-').c_str(), std::string(11, '-').c_str(), std::string(11, '-').c_str(),
                std::string(11, '-').c_str(), std::string(11, '-').c_str(), std::string(13, '-').c_str());
    for (const Server& server : servers) {
        bench::LoopbackSink sink(0, server.manner);
        const std::string address = sink.address();
        for (const bench::Kind kind : {bench::Kind::PostQuery, bench::Kind::GetQuery, bench::Kind::SmallUpload}) {
            std::vector<double> async1, blocking, async6, curl1, curl6;
            {
                const QuietStdout quiet;
                for (int run = 0; run < repeats; ++run) {
                    async1.push_back(bench::asyncMicrosPerCall(address, calls, 1, kind, uploadPath));
                    blocking.push_back(bench::blockingMicrosPerCall(address, std::min(calls, 300), kind, uploadPath));
                    async6.push_back(bench::asyncMicrosPerCall(address, calls, 6, kind, uploadPath));
                    // libcurl waits out the delayed ACK of every reply from a
                    // server that writes it in two pieces: fewer calls there.
                    const int curlCalls = server.manner == bench::Manner::HeadThenBody ? std::min(calls, 60) : calls;
                    curl1.push_back(curlMultiMicrosPerCall(address, curlCalls, 1, kind, uploadPath));
                    curl6.push_back(curlMultiMicrosPerCall(address, curlCalls, 6, kind, uploadPath));
                }
            }
            std::printf("| %-36s | %-22s | %9.0f | %9.0f | %9.0f | %9.0f | %9.0f | %11.2f |\n", server.name,
                        bench::kindName(kind), median(async1), median(blocking), median(async6), median(curl1),
                        median(curl6), median(async6) / median(curl6));
            std::fflush(stdout);
        }
    }
}

// `norva batch` of `calls` model-list queries against `address`, with
// `options` ("--blocking" or "--jobs 6"): seconds, or -1 when not every call
// answered 200. The command sits beside this program in the build tree.
double batchSeconds(const std::string& norva, const std::string& address, int calls, const std::string& options)
{
    char inputTemplate[] = "/tmp/norva-bench-batch-XXXXXX";
    const int input = ::mkstemp(inputTemplate);
    const std::string line = R"({"operation":"get_all_model_id","argument":{"ipconfig":")" + address + "\"}}\n";
    for (int i = 0; i < calls; ++i) {
        if (::write(input, line.data(), line.size()) != ssize_t(line.size()))
            return -1;
    }
    ::close(input);
    const std::string output = std::string(inputTemplate) + ".out";
    const auto start = Clock::now();
    const int status = std::system((norva + " --no-session batch " + options + " " + inputTemplate + " > " + output
                                    + " 2> /dev/null")
                                       .c_str());
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const std::string count = "test $(grep -c '\"status\":200' " + output + ") = " + std::to_string(calls);
    const bool allAnswered = status == 0 && std::system(count.c_str()) == 0;
    ::unlink(inputTemplate);
    ::unlink(output.c_str());
    return allAnswered ? seconds : -1;
}

// `norva batch`, blocking and with 6 in flight, against each kind of server.
void batchRows(const std::string& norva, int calls)
{
    std::printf("\n| %-36s | %-22s | %-12s | %-12s | %-9s |\n", "server", "norva batch", "--blocking s", "--jobs 6 s",
                "speed-up");
    std::printf("|%s|%s|%s|%s|%s|\n", std::string(38, '-').c_str(), std::string(24, '-').c_str(),
                std::string(14, '-').c_str(), std::string(14, '-').c_str(), std::string(11, '-').c_str());
    for (const auto& [manner, name] : {std::pair(bench::Manner::OneWrite, "NODELAY, one write per reply"),
                                       std::pair(bench::Manner::HeadThenBody, "head and body apart, Nagle on")}) {
        bench::LoopbackSink sink(0, manner);
        const double blocking = batchSeconds(norva, sink.address(), calls, "--blocking");
        const double async = batchSeconds(norva, sink.address(), calls, "--jobs 6");
        std::printf("| %-36s | %-22s | %12.2f | %12.2f | %9.1f |\n", name,
                    (std::to_string(calls) + " model lists").c_str(), blocking, async, blocking / async);
        std::fflush(stdout);
    }
}

// A child process: one download through the blocking face, or `count` at once
// through the asynchronous one. Exit 0 when every one stored its file.
int childDownload(const std::string& face, const std::string& address, const std::string& folder, int count)
{
    const std::string argument = R"({"ipconfig":")" + address + R"(","token":"t","file_downloadpath":")" + folder
                                 + R"(","data":{"id":1},"reName":")";
    if (face == "blocking")
        return NORVA::NORVA_API_QT::norva_sdk_download_binary_file(argument + R"(b"})").find("\"status\":200")
                       != std::string::npos
                   ? 0
                   : 1;
    int argc = 1;
    char name[] = "bench_async";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    NORVA::NORVA_API_QT::Client client;
    client.setMaxCallsInFlight(count);
    std::vector<std::unique_ptr<NORVA::NORVA_API_QT::CallReply>> replies;
    int finished = 0;
    for (int i = 0; i < count; ++i) {
        replies.emplace_back(client.call("download_binary_file", argument + "a" + std::to_string(i) + "\"}"));
        QObject::connect(replies.back().get(), &NORVA::NORVA_API_QT::CallReply::finished, [&] {
            if (++finished == count)
                QCoreApplication::quit();
        });
    }
    application.exec();
    for (const auto& reply : replies) {
        if (reply->result().find("\"status\":200") == std::string::npos)
            return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 6 && std::strcmp(argv[1], "--child-download") == 0)
        return childDownload(argv[2], argv[3], argv[4], std::atoi(argv[5]));
    const bool quick = argc > 1 && std::strcmp(argv[argc - 1], "--quick") == 0;
    // --servers: the per-server rows alone.
    const bool servers = argc > 1 && std::strcmp(argv[1], "--servers") == 0;
    const int onlyInFlight = argc == 3 && std::strcmp(argv[1], "--in-flight") == 0 ? std::atoi(argv[2]) : 0;
    const int calls = quick ? 200 : 30000;
    const int blocks = quick ? 1 : 30;
    const int repeats = quick ? 1 : 5;
    const std::uint64_t mib = 1 << 20;

    if (!servers) {
        std::printf("| %-52s | %-14s | %-14s | %-14s | %-10s |\n", "measurement", "async face", "bare Qt", "libcurl multi",
                    "async / Qt");
        std::printf("|%s|%s|%s|%s|%s|\n", std::string(54, '-').c_str(), std::string(16, '-').c_str(),
                    std::string(16, '-').c_str(), std::string(16, '-').c_str(), std::string(12, '-').c_str());
        bench::LoopbackSink sink;
        const std::string address = sink.address();
        int appArgc = 1;
        char appName[] = "bench_async";
        char* appArgv[] = {appName, nullptr};
        QCoreApplication application(appArgc, appArgv);
        // The blocking face's console echo goes to /dev/null: it costs its write,
        // and the table stays readable.
        std::vector<double> blocking;
        {
            const QuietStdout quiet;
            for (int run = 0; run < (onlyInFlight ? 0 : repeats); ++run)
                blocking.push_back(bench::libraryMicrosPerCall(address, std::min(calls, 2000)));
        }
        const int blockCalls = calls / blocks;
        for (const int inFlight : onlyInFlight ? std::vector<int>{onlyInFlight} : std::vector<int>{1, 6, 32}) {
            std::vector<double> async, qt, curl, shares;
            for (int block = 0; block < blocks; ++block) {
                if (block % 2) {
                    async.push_back(bench::asyncMicrosPerCall(address, blockCalls, inFlight));
                    qt.push_back(bench::reusedManagerMicrosPerCall(address, blockCalls, inFlight));
                } else {
                    qt.push_back(bench::reusedManagerMicrosPerCall(address, blockCalls, inFlight));
                    async.push_back(bench::asyncMicrosPerCall(address, blockCalls, inFlight));
                }
                shares.push_back(async.back() / qt.back());
                curl.push_back(curlMultiMicrosPerCall(address, blockCalls, inFlight));
            }
            const double a = median(async), q = median(qt), c = median(curl);
            const std::string label = std::to_string(blocks) + " x " + std::to_string(blockCalls) + " queries, "
                                      + std::to_string(inFlight) + " in flight: calls/s (us)";
            char cells[3][32];
            std::snprintf(cells[0], sizeof cells[0], "%.0f (%.0f)", 1e6 / a, a);
            std::snprintf(cells[1], sizeof cells[1], "%.0f (%.0f)", 1e6 / q, q);
            std::snprintf(cells[2], sizeof cells[2], "%.0f (%.0f)", 1e6 / c, c);
            std::printf("| %-52s | %-14s | %-14s | %-14s | %-10.2f |\n", label.c_str(), cells[0], cells[1], cells[2],
                        median(shares));
        }
        if (!onlyInFlight)
            std::printf("| %-52s | %-14s | %-14s | %-14s | %-10s |\n", "blocking face, host application: us per call",
                        "-", "-", "-", std::to_string(int(median(blocking))).c_str());
    }
    if (onlyInFlight)
        return 0;

    char uploadTemplate[] = "/tmp/norva-bench-upload-XXXXXX";
    const int uploadFile = ::mkstemp(uploadTemplate);
    const std::string kib(1024, 'u');
    if (uploadFile < 0 || ::write(uploadFile, kib.data(), kib.size()) != ssize_t(kib.size()))
        return 1;
    ::close(uploadFile);
    {
        int appArgc = 1;
        char appName[] = "bench_async";
        char* appArgv[] = {appName, nullptr};
        QCoreApplication application(appArgc, appArgv);
        perServerRows(quick ? 100 : 2000, quick ? 1 : 5, uploadTemplate);
    }
    const std::string program = argv[0];
    // The command of this Qt line: "norva", or "norva-qt6" for Qt 6.
    for (const char* name : {"norva", "norva-qt6"}) {
        const std::string norva = program.substr(0, program.find_last_of('/') + 1) + "../tools/" + name;
        if (::access(norva.c_str(), X_OK) == 0) {
            batchRows(norva, quick ? 300 : 10000);
            break;
        }
    }
    ::unlink(uploadTemplate);
    if (servers)
        return 0;

    // Downloads: peak resident memory of the whole process.
    const std::uint64_t big = (quick ? 16 : 2048) * mib;
    const std::uint64_t each = (quick ? 4 : 256) * mib;
    char folderTemplate[] = "/tmp/norva-bench-async-XXXXXX";
    const std::string folder = ::mkdtemp(folderTemplate);
    const auto peakMiB = [&](std::uint64_t bytes, const char* face, int count) {
        bench::LoopbackSink sink(bytes);
        const ChildRun run = runChild({argv[0], "--child-download", face, sink.address(), folder, std::to_string(count)});
        std::system(("rm -f " + folder + "/*").c_str());
        return run.exitCode == 0 ? std::to_string(run.peakKiB / 1024) + " MiB" : std::string("failed");
    };
    const std::string oneBig = std::to_string(big / mib) + " MiB download: peak resident";
    std::printf("| %-52s | %-14s | %-14s | %-14s | %-10s |\n", oneBig.c_str(), peakMiB(big, "async", 1).c_str(),
                ("blocking " + peakMiB(big, "blocking", 1)).c_str(), "-", "-");
    const std::string eight = "eight " + std::to_string(each / mib) + " MiB downloads at once: peak resident";
    std::printf("| %-52s | %-14s | %-14s | %-14s | %-10s |\n", eight.c_str(), peakMiB(each, "async", 8).c_str(), "-", "-",
                "-");
    ::rmdir(folder.c_str());
    return 0;
}
